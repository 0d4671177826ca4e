#!/usr/bin/python3
"""Records what the hooks of a VPN server were told, as far as it concerns connections.

    replay_connections.py [FILE]

FILE has one JSON object in each line; data/README.md tells what is in it and how the variables fill
a record. Every connect and every disconnect becomes one record.
"""
import json
import os
import sys

import ravo

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data", "openvpn-sessions.jsonl")

VPN_TYPE_OPENVPN = 4
# 3 is a lost connection, but a disconnect hook is not told whether the client left or fell silent.
CONNECTED, DISCONNECTED = 1, 2


class DataError(Exception):
    """A line is not what it should be."""


def device_info(env):
    """Platform, program version and everything that the client says about itself."""
    names = ["IV_PLAT", "IV_VER"] + sorted(name for name in env if name.startswith("UV_"))
    return " ".join(env[name] for name in names if name in env)


def to_record(hook, env):
    """The fields of the record for one connect or disconnect."""
    ended = hook == "disconnect"
    duration = int(env["time_duration"]) if ended else 0
    return {
        "username": env["username"],
        "vpn_type": VPN_TYPE_OPENVPN,
        "uptime": duration,
        "time": int(env["time_unix"]) + duration,
        "device_info": device_info(env),
        "source_ip": env["trusted_ip"] if "trusted_ip" in env else env["trusted_ip6"],
        "vpn_ip": env["ifconfig_pool_remote_ip"],
        "tx_total": int(env.get("bytes_sent", 0)),
        "rx_total": int(env.get("bytes_received", 0)),
        "outgoing": env["dev"],
        "action": DISCONNECTED if ended else CONNECTED,
    }


def parse_line(line):
    """The record's fields, or None for a hook that is no connection."""
    try:
        call = json.loads(line)
        if call["hook"] not in ("connect", "disconnect"):
            return None
        return to_record(call["hook"], call["env"])
    except KeyError as error:
        raise DataError(f"{error} is missing") from None
    except (ValueError, TypeError) as error:
        raise DataError(str(error)) from None


def replay(path):
    """Records all connections of the file. Returns their number."""
    recorded = 0
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            try:
                record = parse_line(line)
                if record is not None:
                    ravo.add_connection(**record)
                    recorded += 1
            except (DataError, ravo.RavoError) as error:
                raise DataError(f"{path}, line {number}: {error}") from None
    return recorded


def main():
    path = sys.argv[1] if len(sys.argv) > 1 else DATA
    try:
        print(replay(path), "connects and disconnects recorded from", os.path.basename(path))
    except (DataError, OSError) as error:
        sys.exit(f"replay_connections.py: {error}")


if __name__ == "__main__":
    main()
