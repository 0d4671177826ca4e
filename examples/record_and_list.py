#!/usr/bin/python3
"""Records one connection through the client library and lists the newest ones.

    record_and_list.py [USERNAME]
"""
import sys
import time

import ravo


def main():
    username = sys.argv[1] if len(sys.argv) > 1 else "alice"
    client = ravo.Client()
    client.sessions.add(ravo.Session(
        username=username,
        source_ip="203.0.113.20",
        vpn_ip="10.88.0.20",
        time=int(time.time()),
        action=1,
    ))
    newest = client.sessions.page(count=5, descending=True)
    for row in newest.rows:
        print(row.id, ascii(row.username), "from", row.source_ip, "at", row.time)
    print(len(newest.rows), "of", newest.total, "connections")


if __name__ == "__main__":
    try:
        main()
    except ravo.RavoError as error:
        sys.exit(f"record_and_list.py: {error}")
