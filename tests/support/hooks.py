"""What tests of hooks share: the processes that a hook leaves behind, and what it tells the system log."""
import ctypes
import socket

PR_SET_CHILD_SUBREAPER = 36


def adopt_orphans():
    """What a hook leaves behind becomes a child of this process."""
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def children():
    with open("/proc/thread-self/children", encoding="utf-8") as file:
        return {int(pid) for pid in file.read().split()}


def system_log(test):
    """The socket of the system log, which never blocks, until the test ends."""
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    test.addCleanup(log.close)
    log.bind("/dev/log")
    log.setblocking(False)
    return log
