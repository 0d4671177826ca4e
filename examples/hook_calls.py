"""Reads the recorded calls of a VPN server's hooks; data/README.md tells what is in them."""
import json
import os
import sys

import ravo

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data", "openvpn-sessions.jsonl")


class DataError(Exception):
    """A line is not what it should be, or the daemon did not take what was made of it."""


def replay(path, hooks, use):
    """Hands each call of one of the hooks to use(client, call). Returns their number."""
    client = ravo.Client()
    used = 0
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            try:
                call = json.loads(line)
                if call["hook"] in hooks:
                    use(client, call)
                    used += 1
            except KeyError as error:
                raise DataError(f"{path}, line {number}: {error} is missing") from None
            except (ValueError, TypeError, ravo.RavoError) as error:
                raise DataError(f"{path}, line {number}: {error}") from None
    return used


def replay_argument(hooks, use):
    """The same with the file that the command line names, or the sample data. Ends the program with
    a message when that fails. Returns the number of calls and the file's name."""
    path = sys.argv[1] if len(sys.argv) > 1 else DATA
    try:
        return replay(path, hooks, use), os.path.basename(path)
    except (DataError, OSError, ravo.RavoError) as error:
        sys.exit(f"{os.path.basename(sys.argv[0])}: {error}")
