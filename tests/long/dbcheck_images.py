"""Damaged databases from a real daemon: killed while it writes, or writing on a full disk.

tests/long/dbcheck runs this in a throw-away root. The daemon, the check before its start and the
client library are those that the environment names. The database of one round is that of the next
one, as in service, until it is large; then a new one begins.
"""
import argparse
import collections
import os
import random
import shutil
import signal
import sqlite3
import subprocess
import sys
import threading
import time

import ravo
from support.ravod import DATABASE, DATABASE_FOLDER, Service

LOG = "/var/log/network/RAVO.log"
SMALL = "/small/ravo.db"
FILLER = "/small/filler"
ROWS_OF_A_DATABASE = 3000
ROWS_ON_A_SMALL_DISK = 120
KILL_WITHIN_SECONDS = 0.04


def row_of(number, is_large):
    """A row that can be told from every other one by each of its texts."""
    text = ("x" * 1000 if is_large else "row ") + str(number)
    return {"username": str(number), "device_info": text, "source_ip": text, "vpn_ip": text,
            "outgoing": text, "time": number, "tx_total": number << 20, "rx_total": -number,
            "action": number % 5}


class Database:
    """The rows that were sent, those that were answered, and what the file holds."""

    def __init__(self, figures):
        self.figures = figures
        self.begin_anew()

    def begin_anew(self):
        for name in os.listdir(DATABASE_FOLDER):
            os.unlink(f"{DATABASE_FOLDER}/{name}")
        self.sent = {}
        self.answered = set()

    def send(self, is_large):
        number = len(self.sent) + 1
        self.sent[number] = row_of(number, is_large)
        ravo.add_connection(**self.sent[number])
        return number

    def check(self):
        """Runs the check as the service does before its start; True when there was damage."""
        begin = time.monotonic()
        done = subprocess.run([os.environ["DBCHECK"]], capture_output=True, text=True, check=False)
        took = time.monotonic() - begin
        self.figures["longest check, ms"] = max(self.figures["longest check, ms"],
                                                round(took * 1000))
        if done.returncode != 0 or took > 10:
            sys.exit(f"exit status {done.returncode}, {took:.1f} s: {done.stdout}")
        return ": damaged (" in done.stdout

    def rows(self):
        with sqlite3.connect(f"file:{DATABASE}?mode=ro", uri=True) as file:
            file.row_factory = sqlite3.Row
            found = [dict(row) for row in file.execute("SELECT * FROM conn_server_log")]
        file.close()
        return {int(row["username"]): row for row in found}

    def compare(self, kind):
        """Counts answered rows that are gone and rows that were never sent so."""
        rows = self.rows()
        lost = self.answered - rows.keys()
        made_up = [number for number, row in rows.items()
                   if self.sent.get(number, {}).items() - row.items()]
        self.figures[f"{kind}: answered rows"] += len(self.answered)
        self.figures[f"{kind}: answered rows lost"] += len(lost)
        self.figures[f"{kind}: rows made up"] += len(made_up)
        if lost or made_up:
            print(f"{kind}: lost {sorted(lost)[:20]}, made up {made_up[:20]}", flush=True)
            keep_for_inspection(self.figures)


def keep_for_inspection(figures):
    folder = f"/tmp/failed.{figures['failed images']}"
    figures["failed images"] += 1
    shutil.copytree(DATABASE_FOLDER, folder, symlinks=True)


def killed_daemon(database, is_large):
    """One kill at a random instant of saturated writing."""
    daemon = Service(os.environ["RAVOD"])
    delay = random.uniform(0, KILL_WITHIN_SECONDS)
    killer = threading.Timer(delay, daemon.process.send_signal, [signal.SIGKILL])
    killer.start()
    try:
        while True:
            database.answered.add(database.send(is_large))
    except ravo.RavoError:
        pass
    killer.join()
    daemon.process.wait()


def log_has_errors():
    try:
        with open(LOG, encoding="utf-8", errors="replace") as file:
            return "[ERROR]" in file.read()
    except FileNotFoundError:
        return False


def fill_disk(spare):
    disk = os.statvfs("/small")
    with open(FILLER, "wb") as file:
        file.write(b"x" * max(0, disk.f_bavail * disk.f_frsize - spare))


def full_disk(database, is_large):
    """The disk gets full while the daemon writes, and has space again later. An insert is answered
    either way; the log tells from when on they fail."""
    if os.path.exists(SMALL):
        os.unlink(SMALL)
    database.begin_anew()
    os.symlink(SMALL, DATABASE)
    daemon = Service(os.environ["RAVOD"])
    for _ in range(random.randrange(5, 40)):
        database.answered.add(database.send(is_large))
    fill_disk(random.randrange(0, 65536))
    open(LOG, "w", encoding="utf-8").close()
    has_failed = False
    after = set()
    for _ in range(ROWS_ON_A_SMALL_DISK):
        number = database.send(is_large)
        has_failed = has_failed or log_has_errors()
        (after if has_failed else database.answered).add(number)
        if has_failed and len(after) >= 5:
            break
    os.unlink(FILLER)
    for _ in range(3):
        after.add(database.send(is_large))
    if daemon.stop() != 0:
        sys.exit("the daemon did not end well")
    database.figures["full disk: rows sent after the first failure"] += len(after)
    return after


def round_with_kill(database, is_large):
    killed_daemon(database, is_large)
    database.figures["kills"] += 1
    if not database.check():
        return
    database.figures["damaged by a kill"] += 1
    database.compare("kill")


def round_with_full_disk(database, is_large):
    after = full_disk(database, is_large)
    database.figures["full disks"] += 1
    if database.check():
        database.figures["damaged by a full disk"] += 1
        database.compare("full disk")
        database.figures["full disk: of them saved"] += len(after & database.rows().keys())
        expect_new_rows(database)
    database.begin_anew()
    for name in os.listdir("/small"):
        os.unlink(f"/small/{name}")


def expect_new_rows(database):
    daemon = Service(os.environ["RAVOD"])
    number = database.send(False)
    daemon.stop()
    if number not in database.rows():
        sys.exit("the new database takes no row")


def main():
    parser = argparse.ArgumentParser(prog="tests/long/dbcheck")
    parser.add_argument("--images", type=int, default=500)
    parser.add_argument("--minutes", type=float, default=60)
    options = parser.parse_args()
    figures = collections.Counter()
    database = Database(figures)
    end = time.monotonic() + options.minutes * 60
    rounds = 0
    while time.monotonic() < end:
        images = figures["damaged by a kill"] + figures["damaged by a full disk"]
        if images >= options.images:
            break
        # Damage by a full disk is sure and by a kill is rare: three quarters of the images at most
        # are of the sure kind.
        is_large = rounds % 4 != 0
        if figures["damaged by a full disk"] * 4 < options.images * 3 and rounds % 10 == 9:
            round_with_full_disk(database, is_large=rounds % 20 == 9)
        else:
            round_with_kill(database, is_large)
        rounds += 1
        if len(database.sent) > ROWS_OF_A_DATABASE:
            database.compare("kill")
            database.begin_anew()
    for name, number in figures.items():
        print(f"{name}: {number}")
    sys.exit(1 if figures["failed images"] else 0)


if __name__ == "__main__":
    main()
