#!/usr/bin/python3
"""Runs a program as a unit of this package would: with its files, capabilities, limits and system calls.

    in_sandbox.py UNIT PROGRAM [ARG ...]

Hands SIGHUP, SIGINT and SIGTERM on to the program and ends with its exit status. The limits of memory
and tasks are systemd's own to set and do not hold here.
"""
import json
import os
import resource
import signal
import subprocess
import sys
import tempfile

from service_unit import TOP, Unit, file_system, write_filter

HANDED_ON = (signal.SIGHUP, signal.SIGINT, signal.SIGTERM)


def make_paths():
    """What the system does at its start."""
    subprocess.run(["/usr/bin/systemd-tmpfiles", "--create", TOP + "/packaging/tmpfiles.conf"],
                   check=True)


def set_limits(unit):
    os.umask(int(unit.text("UMask"), 8))
    files = int(unit.text("LimitNOFILE"))
    resource.setrlimit(resource.RLIMIT_NOFILE, (files, files))


def notify_socket():
    path = os.environ.get("NOTIFY_SOCKET", "")
    return path if path.startswith("/") else ""


def start(unit, command, seccomp):
    """Returns bubblewrap as a process, and the process id of the program."""
    assert unit.settings["CapabilityBoundingSet"] == []
    info, told = os.pipe()
    process = subprocess.Popen(
        ["bwrap", "--unshare-user", "--unshare-ipc", "--die-with-parent", "--cap-drop", "ALL",
         *file_system(unit, notify_socket()), "--info-fd", str(told), "--seccomp",
         str(seccomp.fileno()), "--", *command],
        pass_fds=(told, seccomp.fileno()),
        preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_UNBLOCK, HANDED_ON))
    os.close(told)
    with os.fdopen(info) as answer:
        return process, json.load(answer)["child-pid"]


def main():
    unit = Unit(sys.argv[1])
    make_paths()
    set_limits(unit)
    signal.pthread_sigmask(signal.SIG_BLOCK, HANDED_ON)
    with tempfile.TemporaryFile() as seccomp:
        write_filter(unit, seccomp)
        seccomp.seek(0)
        process, program = start(unit, sys.argv[2:], seccomp)
    for handed_on in HANDED_ON:
        signal.signal(handed_on, lambda sig, _frame: os.kill(program, sig))
    signal.pthread_sigmask(signal.SIG_UNBLOCK, HANDED_ON)
    sys.exit(process.wait())


main()
