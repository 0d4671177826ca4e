"""Damaged databases from a real daemon without its commit layer: killed while it writes or while it
trims a table at its row cap, or writing on a full disk.

tests/long/dbcheck runs this in a throw-away root. The daemon, the check before its start and the
client library are those that the environment names. The database of one round is that of the next
one, as in service, until it is large; then a new one begins.
"""
import argparse
import collections
import os
import random
import re
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
CAPPED = "/tmp/capped.db"
ROW_CAP = 101999
TRIM_ROWS = 2000


def name_of(number):
    """Of bytes that stand nowhere else."""
    return f"{number:010}"


def row_of(number, is_large):
    """A row that can be told from every other one by each of its texts."""
    text = ("x" * 1000 if is_large else "row ") + str(number)
    return {"username": name_of(number), "device_info": text, "source_ip": text, "vpn_ip": text,
            "outgoing": text, "time": number, "tx_total": number << 20, "rx_total": -number,
            "action": number % 5}


class Database:
    """The rows that were sent, those that were answered, and what the file holds."""

    def __init__(self, figures):
        self.figures = figures
        self.client = ravo.Client()
        self.begin_anew()

    def begin_anew(self):
        for name in os.listdir(DATABASE_FOLDER):
            os.unlink(f"{DATABASE_FOLDER}/{name}")
        self.sent = {}
        self.answered = set()

    def send(self, is_large):
        number = len(self.sent) + 1
        self.sent[number] = row_of(number, is_large)
        self.client.sessions.add(ravo.Session(**self.sent[number]))
        return number

    def check(self):
        """Runs the check as the service does before its start; True when there was damage."""
        begin = time.monotonic()
        done = subprocess.run([os.environ["DBCHECK"]], capture_output=True, text=True, check=False)
        took = time.monotonic() - begin
        self.figures["longest check, ms"] = max(self.figures["longest check, ms"],
                                                round(took * 1000))
        if done.returncode != 0:
            sys.exit(f"exit status {done.returncode}: {done.stdout}")
        self.figures["checks above 10 s"] += took > 10
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
        emptied = {number for number in lost if name_of(number).encode() not in kept_bytes()}
        lost -= emptied
        made_up = [number for number, row in rows.items()
                   if self.sent.get(number, {}).items() - row.items()]
        self.figures[f"{kind}: answered rows"] += len(self.answered)
        self.figures[f"{kind}: answered rows lost"] += len(lost)
        self.figures[f"{kind}: answered rows that were nowhere in the file"] += len(emptied)
        self.figures[f"{kind}: rows made up"] += len(made_up)
        if lost or made_up:
            print(f"{kind}: lost {sorted(lost)[:20]}, made up {made_up[:20]}", flush=True)
            keep_for_inspection(self.figures)


def kept_bytes():
    """The damaged file that was kept last."""
    folder = os.path.dirname(os.path.realpath(DATABASE))
    kept = [name for name in os.listdir(folder) if re.search(r"-damaged-\d{8}T\d{6}Z$", name)]
    with open(f"{folder}/{max(kept)}", "rb") as file:
        return file.read()


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


def fill_to_row_cap(database):
    """Makes a database that is at its row cap, and returns the seconds that an insert writes
    then."""
    database.begin_anew()
    Service(os.environ["RAVOD"]).stop()
    rows = [row_of(number, False) for number in range(1, ROW_CAP + 1)]
    names = ", ".join(rows[0])
    marks = ", ".join(":" + name for name in rows[0])
    with sqlite3.connect(DATABASE) as file:
        file.executemany(f"INSERT INTO conn_server_log ({names}) VALUES ({marks})", rows)
    file.close()
    shutil.copyfile(DATABASE, CAPPED)
    daemon = Service(os.environ["RAVOD"])
    writing = WritingWatch()
    database.client.sessions.add(ravo.Session(**row_of(ROW_CAP + 1, False)))
    end = time.monotonic()
    daemon.stop()
    return max(end - writing.begin(), 0.005)  # on a busy machine the watch may be late


class WritingWatch(threading.Thread):
    """Sees the first write to the database."""

    def __init__(self, then=lambda: None):
        super().__init__()
        self.then = then
        self.before = os.stat(DATABASE).st_mtime_ns
        self.seen = None
        self.start()

    def run(self):
        while os.stat(DATABASE).st_mtime_ns == self.before:
            pass
        self.seen = time.monotonic()
        self.then()

    def begin(self):
        self.join()
        return self.seen


def killed_trim(database, within_seconds):
    """One kill while an insert that trims writes. The rows that go are nobody's any more."""
    database.begin_anew()
    shutil.copyfile(CAPPED, DATABASE)
    database.sent = {number: row_of(number, False) for number in range(1, ROW_CAP + 1)}
    database.answered = set(range(TRIM_ROWS + 1, ROW_CAP + 1))
    daemon = Service(os.environ["RAVOD"])
    delay = random.uniform(0, within_seconds)

    def kill_later():
        end = time.monotonic() + delay
        while time.monotonic() < end:
            pass
        daemon.process.kill()

    killer = WritingWatch(kill_later)
    try:
        database.answered.add(database.send(False))
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


def round_with_trim(database, within_seconds):
    killed_trim(database, within_seconds)
    database.figures["kills at the row cap"] += 1
    if database.check():
        database.figures["damaged by a kill at the row cap"] += 1
        database.compare("row cap")
    database.begin_anew()


def expect_new_rows(database):
    daemon = Service(os.environ["RAVOD"])
    number = database.send(False)
    daemon.stop()
    if number not in database.rows():
        sys.exit("the new database takes no row")


def images_of(figures):
    return sum(number for name, number in figures.items() if name.startswith("damaged by"))


def tell_progress(kind, figures):
    if figures[kind] % 100 == 0:
        print(f"{figures[kind]} {kind}, {images_of(figures)} damaged images so far", flush=True)


def full_disks(database, end, images):
    while time.monotonic() < end and images_of(database.figures) < images:
        round_with_full_disk(database, is_large=database.figures["full disks"] % 4 != 0)
        tell_progress("full disks", database.figures)


def kills_at_row_cap(database, end, rounds):
    seconds = fill_to_row_cap(database)
    while time.monotonic() < end and database.figures["kills at the row cap"] < rounds:
        round_with_trim(database, seconds)
        tell_progress("kills at the row cap", database.figures)
    database.begin_anew()


def kills(database, end, images):
    while time.monotonic() < end and images_of(database.figures) < images:
        round_with_kill(database, is_large=database.figures["kills"] % 4 != 0)
        tell_progress("kills", database.figures)
        if len(database.sent) > ROWS_OF_A_DATABASE:
            database.compare("kill")
            database.begin_anew()


def main():
    parser = argparse.ArgumentParser(prog="tests/long/dbcheck")
    parser.add_argument("--images", type=int, default=500)
    parser.add_argument("--minutes", type=float, default=60)
    options = parser.parse_args()
    figures = collections.Counter()
    database = Database(figures)
    end = time.monotonic() + options.minutes * 60
    full_disks(database, end, options.images * 3 // 5)
    kills_at_row_cap(database, end, options.images // 5)
    kills(database, end, options.images)
    print(f"damaged images: {images_of(figures)}")
    for name, number in figures.items():
        print(f"{name}: {number}")
    sys.exit(1 if figures["failed images"] or figures["checks above 10 s"] else 0)


if __name__ == "__main__":
    main()
