"""The records of ravod, the record-keeping daemon of a VPN service, and its login-attempt limiter.

    import ravo

    client = ravo.Client()
    client.sessions.add(ravo.Session(username="alice", vpn_type=4, action=1))
    for session in client.sessions.all(where=("username", "alice")):
        print(session.time, session.source_ip)
    if client.limiter.is_blocked("alice"):
        ...

Every call is one request to the daemon on this machine, and blocks until it has answered, 5 seconds
without progress at most. Any thread may call. What was added is not said to be stored: a database that
refuses a record is told to the daemon's log alone.

Texts are str; bytes that are not UTF-8 survive in both directions (surrogateescape). A text or a number
that does not fit into its field is refused before anything is sent.

The library, libravo_client.so.1, is found by the dynamic linker, and before that in the folder that the
caller or the variable RAVO_LIBRARY_DIR names. Without memory for a request it ends the process.
"""
from ._client import Client, Devices, Events, Limiter, Page, Table
from ._library import (CallError, FieldError, LibraryMissing, NoAnswer, NotAllowed, NotReachable,
                       RavoError, TimedOut)
from ._records import Block, Device, Event, Outgoing, Server, Session

__all__ = [
    "Block", "CallError", "Client", "Device", "Devices", "Event", "Events", "FieldError",
    "LibraryMissing", "Limiter", "NoAnswer", "NotAllowed", "NotReachable", "Outgoing", "Page",
    "RavoError", "Server", "Session", "Table", "TimedOut",
]
