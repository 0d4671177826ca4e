"""ravoctl against a running ravod."""
import json
import os
import re
import shutil
import socket
import sqlite3
import struct
import subprocess
import threading
import time
import unicodedata
import unittest
import xml.etree.ElementTree

from support.ravod import DATABASE, RavodTest

ENDPOINT = "@/var/run/ravod.sock"
QUERY_SIZE = 2088
TEXT, INT32, INT64, UINT64 = "text", "int32", "int64", "uint64"
EXTREMES = {
    INT32: (-(2**31), 2**31 - 1),
    INT64: (-(2**63), 2**63 - 1),
    UINT64: (0, 2**63 - 1),
}
# The settable fields of each table, in the order of its columns, and the bytes that a text may have.
TABLES = {
    "sessions": {
        "username": 1024, "vpn_type": INT32, "uptime": UINT64, "time": UINT64, "device_info": 1024,
        "source_ip": 1024, "vpn_ip": 1024, "tx_rate": INT64, "rx_rate": INT64, "tx_total": INT64,
        "rx_total": INT64, "outgoing": 1024, "action": INT32,
    },
    "outgoing": {
        "username": 1024, "vpn_type": INT32, "uptime": UINT64, "time": UINT64, "vpn_ip": 1024,
        "tx_rate": INT64, "rx_rate": INT64, "tx_total": INT64, "rx_total": INT64,
        "country_code": 2, "wan_ip": 1024, "action": INT32,
    },
    "servers": {
        "uuid": 1024, "username": 1024, "sid": 1024, "device_name": 1023, "expire_time": UINT64,
        "time": UINT64,
    },
    "devices": {
        "ip": 1024, "mac": 1024, "vossid": 1024, "user_id": 1024, "dev_name": 1024, "nic": 1024,
        "time": UINT64,
    },
}
# How the records are listed as they are; the sessions are put together from theirs.
LISTS = {table: [table] for table in TABLES} | {"sessions": ["sessions", "--rows"]}
ROWS = LISTS["sessions"]
VERBS = dict.fromkeys(TABLES, "add") | {"devices": "register"}
UUID = r"[0-9a-f]{32}%R\?\n"

SETTINGS = "/etc/config/vpn_block.conf"
NOTIFICATIONS = "/var/log/network/notifications.jsonl"
NOTIFIER = "/usr/local/sbin/notify"
AWAIT = os.path.join(os.path.dirname(__file__), "..", "tools", "await")


def is_text(kind):
    return isinstance(kind, int)


def width(text):
    """Terminal columns, by Python's own tables."""
    return sum(0 if unicodedata.combining(c) else 1 + (unicodedata.east_asian_width(c) in "WF")
               for c in text)


class Closing:
    """Holds ravod's address and closes every connection unanswered, until the test ends."""

    def __init__(self):
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind("\0" + ENDPOINT[1:])
        self.listener.listen()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        try:
            while True:
                self.listener.accept()[0].close()
        except OSError:
            pass  # shut down

    def stop(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.listener.close()


class ravoctl(RavodTest):
    def add(self, table, *words):
        output = self.succeed(self.ravoctl(table, VERBS[table], *words))
        self.assertRegex(output, "^" + (UUID if table == "devices" else "") + "$")

    def table(self, *arguments):
        return self.succeed(self.ravoctl(*arguments)).splitlines()

    def json(self, *arguments):
        return json.loads(self.succeed(self.ravoctl(*arguments, "--json")))

    def names(self, *arguments):
        return [row["username"] for row in self.json(*ROWS, *arguments)["rows"]]

    def add_five(self):
        for name in ("eve", "bob", "dan", "alice", "carol"):
            self.add("sessions", f"username={name}", f"uptime={len(name)}")

    def start_limiter(self, **settings):
        """Everything that the limiter needs; the settings are members of the file."""
        self.set_limiter(**settings)
        os.makedirs(os.path.dirname(NOTIFIER), exist_ok=True)
        shutil.copy(os.environ["NOTIFY"], NOTIFIER)
        vpncaas = self.start(os.environ["VPNCAAS"])
        self.start_ravod()
        return vpncaas

    def set_limiter(self, **settings):
        with open(SETTINGS, "w", encoding="utf-8") as file:
            json.dump({"global": settings}, file)

    def put_counter(self, name, count, timestamp):
        """Stores a counter as the daemon would have at that time."""
        with sqlite3.connect(DATABASE) as database:
            database.execute("INSERT INTO privilege_user_block (username, limit_count, timestamp)"
                             " VALUES (?, ?, ?)", (name, count, timestamp))
        database.close()

    def fail_login(self, *names):
        for name in names:
            self.assertEqual(self.succeed(self.ravoctl("blocks", "fail", "--", name)), "")

    def counters(self, *arguments):
        return self.json("blocks", *arguments)["rows"]

    def states(self):
        return {row["username"]: (row["limit_count"], row["state"]) for row in self.counters()}

    def check(self, *arguments):
        """Exit status and standard output of a check that complains of nothing."""
        result = self.ravoctl("blocks", "check", *arguments)
        self.assertEqual(result.stderr, b"")
        return result.returncode, result.stdout.decode()

    def notified(self, text, *arguments):
        """Runs ravoctl, and waits for a notification that it leads to."""
        command = [AWAIT, "text", NOTIFICATIONS, text, os.environ["RAVOCTL"], *arguments]
        self.assertEqual(self.succeed(self.run_program("/usr/bin/python3", "-B", *command)), "")

    # --- Listing ---

    def test_empty_table_is_a_success(self):
        self.start_ravod()
        for table, words in LISTS.items():
            schema = "ravoctl.session_rows/1" if table == "sessions" else f"ravoctl.{table}/1"
            self.assertEqual(self.table(*words), ["no rows; the table has 0"])
            self.assertEqual(self.json(*words), {"schema": schema, "rows": [], "count": 0,
                                                 "more": False, "total": 0})
        self.assertEqual(self.table("sessions"), ["no sessions"])
        self.assertEqual(self.table("sessions", "top"), ["no users"])

    def test_newest_rows_stand_last_and_the_last_line_counts_them(self):
        self.start_ravod()
        self.add_five()
        for arguments, names, last_line in (
            ([], ["eve", "bob", "dan", "alice", "carol"], "5 rows"),
            (["-n", "2"], ["alice", "carol"], "the newest 2 rows; the table has 5; -n all shows all"),
            (["-n", "2", "-r"], ["carol", "alice"], "the newest 2 rows; the table has 5; -n all shows all"),
            (["-n", "5"], ["eve", "bob", "dan", "alice", "carol"], "5 rows"),
            (["-n", "0"], [], "no rows; the table has 5"),
            (["--sort", "username", "-n", "2"], ["dan", "eve"],
             "the 2 rows with the largest username; the table has 5; -n all shows all"),
            (["--sort", "username", "-r", "-n", "1"], ["eve"],
             "the 1 row with the largest username; the table has 5; -n all shows all"),
            (["-u", "bob"], ["bob"], "1 row that matches; the table has 5"),
            (["-u", "nobody"], [], "no rows that match; the table has 5"),
            (["--filter", "uptime=3", "-n", "1"], ["dan"],
             "the newest 1 row that matches; the table has 5; -n all shows all"),
        ):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.names(*arguments), names)
                lines = self.table(*ROWS, *arguments)
                self.assertEqual([line.split()[1] for line in lines[1:-1]], names)
                self.assertEqual(lines[-1], last_line)

    def test_shows_twenty_rows_unless_told_otherwise(self):
        self.start_ravod()
        for n in range(21):
            self.add("sessions", f"uptime={n}", "time=now")
        listed = self.json(*ROWS)
        self.assertEqual((listed["count"], listed["more"], listed["total"]), (20, True, 21))
        self.assertEqual(listed["rows"][-1]["uptime"], 20)
        for arguments in (["-n", "all"], ["-S", "-1h"]):
            listed = self.json(*ROWS, *arguments)
            self.assertEqual((listed["count"], listed["more"]), (21, False))

    def test_conditions_are_joined_and_may_look_at_what_the_daemon_cannot(self):
        self.start_ravod()
        now = int(time.time())
        for name, source, kind, age in (("alice", "203.0.113.1", "openvpn", 7200), ("bob", "203.0.113.1", 2, 3600),
                                        ("alice", "203.0.113.2", 4, 60), ("", "203.0.113.3", 77, 30)):
            self.add("sessions", f"username={name}", f"source_ip={source}", f"vpn_type={kind}", f"time={now - age}")
        # The last row was recorded late.
        self.add("sessions", "username=late", "source_ip=203.0.113.1", "vpn_type=4", f"time={now - 5400}")
        for arguments, ids in (
            (["-u", "alice"], [1, 3]), (["-u", "alice", "--source", "203.0.113.2"], [3]),
            (["--type", "openvpn"], [1, 3, 5]), (["--type", "77"], [4]), (["--type", "l2tp", "-u", "bob"], [2]),
            (["--filter", "username="], [4]), (["-u", ""], [4]),
            (["--filter", "source_ip=203.0.113.1", "--filter", "vpn_type=4"], [1, 5]),
            (["-S", "-65min"], [2, 3, 4]), (["-S", "-2h 5min"], [1, 2, 3, 4, 5]), (["-S", f"@{now - 5400}"], [2, 3, 4, 5]),
            (["-U", f"@{now - 3600}"], [1, 2, 5]), (["-S", "-95min", "-U", "-80min"], [5]),
            (["-S", "-65min", "-n", "2"], [3, 4]), (["--type", "openvpn", "-n", "1"], [5]),
            (["--type", "openvpn", "--sort", "time", "-n", "2"], [5, 3]),
        ):
            with self.subTest(arguments=arguments):
                self.assertEqual([row["id"] for row in self.json(*ROWS, *arguments)["rows"]], ids)

    def test_orders_by_every_field_of_every_table(self):
        self.start_ravod()
        for table, fields in TABLES.items():
            # Each field puts the three rows into the order that belongs to its place.
            orders = [(1, 2, 3), (2, 3, 1), (3, 1, 2), (3, 2, 1), (1, 3, 2)]
            chosen = {name: orders[i % len(orders)] for i, name in enumerate(fields)}
            for row in range(3):
                self.add(table, *(f"{name}={chosen[name][row]}" for name in fields))
            for name in fields:
                with self.subTest(table=table, field=name):
                    rows = self.json(*LISTS[table], "--sort", name)["rows"]
                    self.assertEqual([int(row[name]) for row in rows], [1, 2, 3])
                    rows = self.json(*LISTS[table], "--sort", name, "-r")["rows"]
                    self.assertEqual([int(row[name]) for row in rows], [3, 2, 1])

    def test_filters_by_texts_that_quoting_could_spoil(self):
        self.start_ravod()
        names = ["o'brien", "zoë", "100%", '"', "a b", "x=y", "[1,2]", "%q%s", "\\", "-h"]
        for name in names:
            self.add("sessions", f"username={name}")
        for name in names:
            self.assertEqual(self.names("--filter", f"username={name}"), [name])

    def test_filters_by_numbers_and_times(self):
        self.start_ravod()
        self.add("sessions", "username=a", "time=2026-11-21T01:00:58Z", "tx_total=-5")
        self.add("sessions", "username=b", "time=1795222859", "tx_total=5")
        self.assertEqual(self.names("--filter", "time=1795222858"), ["a"])
        self.assertEqual(self.names("--filter", "time=2026-11-21T01:00:59Z"), ["b"])
        self.assertEqual(self.names("--filter", "tx_total=-5"), ["a"])
        self.assertEqual(self.names("--filter", "id=2"), ["b"])

    def test_bad_list_requests_are_refused_and_say_why(self):
        for arguments, *words in (
            (["--sort", "nix"], "nix", "username, vpn_type"),
            (["--filter", "nix=1"], "nix", "username, vpn_type"),
            (["--filter", "username"], "FIELD=VALUE"),
            (["--filter", "vpn_type=four"], "vpn_type", "-2147483648 to 2147483647", "openvpn"),
            (["--type", "four"], "vpn_type", "openvpn"),
            (["-u", "x" * 1025], "username", "1024"),
            (["-n", "some"], "-n", "some", "all"), (["-n", "-1"], "-n"),
            (["-S", "soon"], "--since", "soon", "yesterday"), (["-U", "2026-02-30"], "--until"),
            (["-S", "now", "-U", "yesterday"], "not before"),
            (["-o", "xml"], "-o", "xml", "jsonl"), (["-c", "id,nix"], "-c", "nix", "username, vpn_type"),
            (["--json", "--wide"], "--json", "--wide"),
            (["-f", "--json"], "-f", "jsonl"), (["-f", "-r"], "-f"), (["--open"], "--open", "--rows"),
            (["nix"], "nix"),
        ):
            with self.subTest(arguments=arguments):
                self.fails(self.ravoctl(*ROWS, *arguments), 2, *words)

    # --- Adding ---

    def check_extreme(self, table, which):
        fields = TABLES[table]
        expected = {name: "x" * kind if is_text(kind) else EXTREMES[kind][which]
                    for name, kind in fields.items()}
        self.add(table, *(f"{name}={value}" for name, value in expected.items()))
        row = self.json(*LISTS[table], "-n", "1")["rows"][0]
        row.pop("id")
        row.pop("dev_uuid", None)
        self.assertEqual(row, expected)

    def test_every_field_reads_back_at_both_ends_of_its_range(self):
        self.start_ravod()
        for table in TABLES:
            for which in (0, 1):
                with self.subTest(table=table, which=which):
                    self.check_extreme(table, which)

    def test_values_that_do_not_fit_are_refused_with_field_and_range(self):
        self.start_ravod()
        for table, fields in TABLES.items():
            for name, kind in fields.items():
                if is_text(kind):
                    bad = {"x" * (kind + 1): str(kind)}
                else:
                    low, high = EXTREMES[kind]
                    limits = f"{low} to {high}"
                    bad = {str(low - 1): limits, str(high + 1): limits, "": limits, "1x": limits}
                for text, words in bad.items():
                    with self.subTest(table=table, field=name, text=text[:30]):
                        result = self.ravoctl(table, VERBS[table], f"{name}={text}")
                        self.fails(result, 2, name, words)
            self.assertEqual(self.table(*LISTS[table]), ["no rows; the table has 0"])

    def test_add_refuses_what_is_no_assignment(self):
        self.start_ravod()
        for words, *expected in (
            ([], "fields", "required"), (["username"], "username", "FIELD=VALUE"), (["nix=1"], "nix"),
            (["id=1"], "id", "table"), (["action=1", "action=2"], "action", "twice"),
        ):
            with self.subTest(words=words):
                self.fails(self.ravoctl("sessions", "add", *words), 2, *expected)
        self.assertEqual(self.table(*ROWS), ["no rows; the table has 0"])

    def test_times_are_taken_in_words_and_shown_as_local_ones_or_in_utc(self):
        self.start_ravod()
        environment = {**os.environ, "TZ": "America/New_York"}
        before = int(time.time())
        for text in ("1795222858", "2026-11-21T01:00:58Z", "now", "9223372036854775807", "2026-11-20 20:00:58",
                     "2026-11-20T20:00:58-05:00"):
            self.succeed(self.ravoctl("sessions", "add", f"time={text}", env=environment))
        times = [row["time"] for row in self.json(*ROWS)["rows"]]
        self.assertTrue(before <= times.pop(2) <= time.time())
        self.assertEqual(times, [1795222858, 1795222858, 9223372036854775807, 1795222858, 1795222858])
        lines = self.succeed(self.ravoctl(*ROWS, env=environment)).splitlines()
        self.assertIn(" 2026-11-20T20:00:58-05:00 ", lines[1])
        self.assertIn(" 9223372036854775807 ", lines[4])  # no year that ISO 8601 could write
        lines = self.succeed(self.ravoctl(*ROWS, "--utc", env=environment)).splitlines()
        self.assertIn(" 2026-11-21T01:00:58Z ", lines[1])
        for text in ("2026-02-30T00:00:00Z", "soon", "2026-11-21T01:00:58Zx", "2026-11-21T01:00+x"):
            self.fails(self.ravoctl("sessions", "add", f"time={text}"), 2, "time", "epoch", "yesterday")

    # --- Output ---

    def test_nothing_that_disturbs_a_terminal_comes_out_raw(self):
        self.start_ravod()
        for raw, shown in (
            (b"a\x1b[31mb", r"a\x1B[31mb"), (b"a\nb\rc\td", r"a\nb\rc\td"), (b"\x01\x7f", r"\x01\x7F"),
            (b"\xff\xc3", r"\xFF\xC3"), (b"\xc2\x9b2J", r"\xC2\x9B2J"), (b"a\\n", r"a\\n"),
            (b"\xc0\xaf", r"\xC0\xAF"), (b"\xed\xa0\x80", r"\xED\xA0\x80"),
            (b"\xf4\x90\x80\x80", r"\xF4\x90\x80\x80"), (b"a\xe2\x80\xaeb", r"a\xE2\x80\xAEb"),
            (b"\xe2\x80\xa8", r"\xE2\x80\xA8"), (b"\xf8\x88\x80\x80\x80", r"\xF8\x88\x80\x80\x80"),
            (b"\xef\xbb\xbf", r"\xEF\xBB\xBF"), (b"\xd8\x9c", r"\xD8\x9C"),
            ("zoë €𝄞".encode(), "zoë €𝄞"),
        ):
            with self.subTest(raw=raw):
                self.add("servers", b"username=" + raw)
                self.assertEqual(self.table("servers", "-n", "1")[1].split("  ")[1]
                                 .strip(), shown)

    def test_wrong_words_are_escaped_in_messages_too(self):
        result = self.ravoctl("sessions", "add", b"\x1b[31m=1")
        self.fails(result, 2, r"\x1B[31m")
        self.assertNotIn(b"\x1b", result.stderr)
        for words in (["sessions", b"\x1b[31m"], ["sessions", b"--\x1b[31m"],
                      ["blocks", "fail", "a", b"\x1b[31m"]):
            result = self.ravoctl(*words)
            self.assertIn(rb"\x1B[31m", result.stderr)
            self.assertNotIn(b"\x1b", result.stderr)

    def test_characters_are_known_in_every_locale(self):
        self.start_ravod()
        self.add("sessions", "username=zoë")
        for locale in ("C", "POSIX", "nix"):
            environment = {**os.environ, "LC_ALL": locale}
            self.assertIn(" zoë ", self.succeed(self.ravoctl(*ROWS, env=environment)))

    def test_columns_line_up_behind_characters_of_any_width(self):
        self.start_ravod()
        for name in ("bob", "zoë", "zoe\u0308", "日本語", "한국"):
            self.add("outgoing", f"username={name}", "action=1")
        lines = self.table("outgoing")
        self.assertEqual(len({width(line) for line in lines[1:-1]}), 1, lines)

    def test_narrow_table_cuts_long_texts_and_wide_table_shows_all_fields(self):
        self.start_ravod()
        self.add("sessions", "username=" + "é" * 512, "outgoing=tun7")
        narrow = self.table(*ROWS)
        self.assertIn("  " + "é" * 34 + "…  ", narrow[1])
        self.assertNotIn("tun7", narrow[1])
        wide = self.table(*ROWS, "--wide")
        self.assertIn("é" * 512, wide[1])
        self.assertEqual(wide[0].split(), ["id", *TABLES["sessions"]])

    def test_json_is_valid_whatever_the_bytes_are(self):
        self.start_ravod()
        every_byte = bytes(range(1, 256))
        self.add("sessions", b"username=" + every_byte, b"outgoing=zo\xc3\xab")
        row = self.json(*ROWS)["rows"][0]
        self.assertEqual(bytes.fromhex(row["username_hex"]), every_byte)
        self.assertTrue(row["username"].startswith(every_byte[:127].decode() + "\ufffd"))
        self.assertEqual(row["outgoing"], "zoë")
        self.assertNotIn("outgoing_hex", row)

    def test_json_lines_and_csv_have_a_line_for_each_row(self):
        self.start_ravod()
        self.add("servers", "username=a,\"b", "sid==cmd()", b"device_name=x\n\x1b\\", "time=5")
        self.add("servers", "username=@b", "sid=-1", "device_name=+1", "expire_time=1")
        lines = self.table("servers", "-o", "jsonl", "-c", "time,username")
        self.assertEqual([list(json.loads(line).items()) for line in lines],
                         [[("schema", "ravoctl.servers/1"), ("time", 5), ("username", 'a,"b')],
                          [("schema", "ravoctl.servers/1"), ("time", 0), ("username", "@b")]])
        result = self.ravoctl("servers", "-o", "csv")
        self.assertEqual(result.stdout.decode(),
                         "id,uuid,username,sid,device_name,expire_time,time\r\n"
                         "1,,\"a,\"\"b\",'=cmd(),x\\n\\x1B\\\\,0,5\r\n"
                         "2,,'@b,'-1,'+1,1,0\r\n")
        self.assertEqual(self.table("servers", "-o", "csv", "-c", "id", "-r"), ["id", "2", "1"])

    def test_columns_are_chosen_in_any_format(self):
        self.start_ravod()
        self.add("sessions", "username=bob", "tx_total=1234567", "vpn_type=openvpn", "action=lost", "uptime=3661")
        columns = ["-c", "tx_total,action,vpn_type,uptime"]
        self.assertEqual(self.table(*ROWS, *columns)[:2], ["tx_total  action  vpn_type   uptime",
                                                           "  1.2 MB  lost    openvpn   1:01:01"])
        self.assertEqual(self.table(*ROWS, *columns, "-o", "wide")[1], " 1234567  lost    openvpn   1:01:01")
        self.assertEqual(self.json(*ROWS, *columns)["rows"],
                         [{"tx_total": 1234567, "action": 3, "vpn_type": 4, "uptime": 3661}])

    def test_output_that_cannot_be_written_is_an_error(self):
        self.start_ravod()
        with open("/dev/full", "wb") as full:
            result = subprocess.run([os.environ["RAVOCTL"], "sessions"], stdout=full,
                                    stderr=subprocess.PIPE, check=False)
        self.assertEqual(result.returncode, 7)
        self.assertIn(b"output", result.stderr)

    # --- Failing daemon ---

    def test_no_daemon_is_told_from_an_empty_list(self):
        for table in TABLES:
            self.fails(self.ravoctl(table), 3, "not reachable")
            self.fails(self.ravoctl(table, "--json"), 3, "not reachable")
            word = "mac=x" if table == "devices" else "username=x"
            self.fails(self.ravoctl(table, VERBS[table], word), 3, "not reachable")
        for command in (["call", "db_event_insert"], ["uuid"], ["blocks"], ["blocks", "check", "x"],
                        ["blocks", "fail", "x"], ["blocks", "lift", "x"], ["blocks", "lift", "--all"]):
            self.fails(self.ravoctl(*command), 3, "not reachable")

    def test_wrong_usage_needs_no_daemon(self):
        for arguments in ([], ["nix"], ["--nix"], ["call"], ["sessions", "--sort", "nix"]):
            self.fails(self.ravoctl(*arguments), 2)

    def test_daemon_that_does_not_answer_is_told_from_one_that_is_not_there(self):
        closing = Closing()
        self.addCleanup(closing.stop)
        self.fails(self.ravoctl("sessions"), 8, "no answer")
        self.fails(self.ravoctl("sessions", "add", "username=x"), 8, "no answer")
        for command in (["call", "db_event_insert"], ["uuid"], ["blocks"], ["blocks", "check", "x"],
                        ["blocks", "fail", "x"], ["blocks", "lift", "x"], ["blocks", "lift", "--all"]):
            self.fails(self.ravoctl(*command), 8, "no answer")

    def test_rows_that_could_not_be_counted_are_told(self):
        with open(DATABASE, "wb") as database:
            database.write(b"this is no database" * 1000)
        self.start_ravod()
        for words in (["sessions"], ROWS, [*ROWS, "--json"], ["sessions", "top"], ["sessions", "show", "1"]):
            self.fails(self.ravoctl(*words), 8, "could not count")

    # --- Devices and UUIDs ---

    def test_registering_a_known_mac_again_keeps_its_uuid(self):
        self.start_ravod()
        first = self.succeed(self.ravoctl("devices", "register", "mac=a", "dev_name=old"))
        other = self.succeed(self.ravoctl("devices", "register", "mac=b"))
        again = self.succeed(self.ravoctl("devices", "register", "mac=a", "dev_name=new"))
        self.assertEqual(first, again)
        self.assertNotEqual(first, other)
        rows = self.json("devices")["rows"]
        self.assertEqual([(row["mac"], row["dev_name"]) for row in rows], [("b", ""), ("a", "new")])
        self.assertEqual([row["dev_uuid"] + "\n" for row in rows], [other, again])
        self.assertIn("  " + first.strip() + "  ", self.table("devices")[2])

    def test_device_without_mac_or_with_a_uuid_of_its_own_is_refused(self):
        self.start_ravod()
        for words, *expected in ((["ip=1"], "mac"), (["mac="], "mac"), (["dev_uuid=x", "mac=a"], "dev_uuid")):
            self.fails(self.ravoctl("devices", "register", *words), 2, *expected)
        self.assertEqual(self.json("devices")["total"], 0)

    def test_device_that_was_not_stored_is_a_failure(self):
        self.start_ravod()
        spoiled = struct.pack("=qqqq", 0, 1, 0, 0) + b"nix".ljust(1025, b"\0") + b"x"
        self.ravoctl("call", "db_device_info_query", "--hex", spoiled.ljust(QUERY_SIZE, b"\0").hex())
        self.fails(self.ravoctl("devices", "register", "mac=a"), 5, "could not store", "log")

    def test_uuid_is_fresh_each_time(self):
        self.start_ravod()
        texts = [self.succeed(self.ravoctl("uuid")) for _ in range(2)]
        self.assertNotEqual(*texts)
        for text in texts:
            self.assertRegex(text, f"^{UUID}$")
        self.assertEqual(self.json("devices")["total"], 0)

    # --- Blocks ---

    def test_user_is_blocked_at_the_limit_and_free_when_lifted(self):
        self.start_limiter(enable=True, limit=3, time=5)
        self.assertEqual(self.check("mallory"), (0, "mallory is not blocked\n"))
        self.fail_login("mallory", "mallory")
        self.assertEqual(self.check("mallory"), (0, "mallory is not blocked\n"))
        self.notified("mallory has been blocked", "blocks", "fail", "mallory")
        self.assertEqual(self.check("mallory"), (1, "mallory is blocked\n"))
        self.notified("Unblock the user: Username: mallory.", "blocks", "lift", "mallory")
        self.assertEqual(self.check("mallory"), (0, "mallory is not blocked\n"))
        self.assertEqual(self.counters(), [])

    def test_lift_takes_several_users_or_all(self):
        self.start_limiter(enable=True, limit=9, time=5)
        self.fail_login("a", "b", "c", "d")
        self.assertEqual(self.succeed(self.ravoctl("blocks", "lift", "a", "c", "nobody")), "")
        self.assertEqual(list(self.states()), ["b", "d"])
        self.assertEqual(self.succeed(self.ravoctl("blocks", "lift", "--all")), "")
        self.assertEqual(self.table("blocks"), ["no rows; the table has 0"])

    def test_blocks_tell_until_when_and_how_long(self):
        self.start_limiter(enable=True, limit=3, time=2.5)
        now = int(time.time())
        for name, count, age in (("counting", 2, 0), ("blocked", 3, 0), ("past", 2**31 - 1, 60),
                                 ("out", 3, 150), ("past and out", 4, 10**6), ("ahead", 3, -1000)):
            self.put_counter(name, count, now - age)
        rows = {row.pop("username"): row for row in self.counters()}
        passed = int(time.time()) - now
        for name, state, end in (("blocked", "blocked", 150), ("past", "blocked", 90),
                                 ("out", "run out", 0), ("past and out", "run out", 150 - 10**6),
                                 ("ahead", "blocked", 1150)):
            with self.subTest(name=name):
                self.assertEqual((rows[name]["state"], rows[name]["until"]), (state, now + end))
                left = max(end, 0)
                self.assertTrue(max(left - passed, 0) <= rows[name]["left"] <= left)
        self.assertEqual(rows["counting"], {"id": 1, "limit_count": 2, "timestamp": now,
                                            "state": "counting", "until": None, "left": None})

    def test_blocks_table_shows_times_and_leaves_cells_without_one_empty(self):
        self.start_limiter(enable=True, limit=3, time=60 * 24 * 365 * 100)
        self.put_counter("bob", 3, 1795222858)
        self.put_counter("eve", 1, 1795222858)
        heading, bob, eve, last = self.table("blocks", "--utc")
        self.assertEqual(heading.split(), ["username", "limit_count", "timestamp", "state", "until", "left"])
        self.assertRegex(bob, r"^bob +3  2026-11-21T01:00:58Z  blocked +2126-10-28T01:00:58Z  \d+:\d\d:\d\d$")
        self.assertRegex(eve, r"^eve +1  2026-11-21T01:00:58Z  counting$")
        self.assertEqual(last, "2 rows")

    def test_end_of_a_block_beyond_all_times_is_the_last_time(self):
        self.start_limiter(enable=True, limit=1, time=1e300)
        self.put_counter("bob", 1, 1795222858)
        row = self.counters()[0]
        self.assertEqual((row["state"], row["until"]), ("blocked", 2**63 - 1))

    def test_states_follow_the_settings_at_once(self):
        vpncaas = self.start_limiter(enable=True, limit=3, time=5)
        self.put_counter("bob", 2, int(time.time()))
        for settings, state in (({"enable": True, "limit": 2, "time": 5}, "blocked"),
                                ({"enable": True, "limit": 2}, "run out"),
                                ({"enable": True, "limit": "3", "time": 5}, "blocked"),
                                ({"enable": 1, "limit": 2, "time": 5}, "limiter off"),
                                ({}, "limiter off")):
            with self.subTest(settings=settings):
                self.set_limiter(**settings)
                self.assertEqual(self.states(), {"bob": (2, state)})
        os.remove(SETTINGS)
        self.check_unknown("could not read " + SETTINGS)
        vpncaas.stop()
        self.check_unknown("vpncaas is not reachable")

    def check_unknown(self, reason):
        """The list and the check work, and say on standard error that the settings are missing."""
        result = self.ravoctl("blocks", "--json")
        self.assertEqual(result.returncode, 0)
        row = json.loads(result.stdout)["rows"][0]
        self.assertEqual((row["state"], row["until"]), ("settings unknown", None))
        self.assertIn(reason, result.stderr.decode())
        result = self.ravoctl("blocks", "check", "bob")
        self.assertEqual((result.returncode, result.stdout), (0, b"bob is not blocked\n"))
        self.assertIn(reason, result.stderr.decode())
        self.assertIn("blocks nobody", result.stderr.decode())

    def test_blocks_are_sorted_and_filtered_by_their_states_too(self):
        self.start_limiter(enable=True, limit=2, time=5)
        self.fail_login("b", "a", "a", "c", "c", "c")
        for arguments, names in ((["--sort", "limit_count"], ["b", "a", "c"]), (["-n", "1", "-r"], ["c"]),
                                 (["--filter", "limit_count=3"], ["c"]), (["--filter", "state=counting"], ["b"]),
                                 (["--filter", "state=blocked", "-n", "1"], ["c"]), (["--sort", "until", "-n", "2"], ["a", "c"]),
                                 (["-u", "a"], ["a"])):
            with self.subTest(arguments=arguments):
                self.assertEqual([row["username"] for row in self.counters(*arguments)], names)
        self.fails(self.ravoctl("blocks", "--sort", "nix"), 2, "nix")

    def test_any_name_can_be_counted_checked_and_lifted(self):
        self.start_limiter(enable=True, limit=1, time=5)
        names = ["-h", "--all", "--", "[a,b]", "{}", "", " ", "check", "lift", "sessions", "call", "o'brien",
                 "zoë", '"', "\\", "$(x)", "*"]
        self.fail_login(*names)
        self.assertEqual(self.states(), {name: (1, "blocked") for name in names})
        for name in names:
            with self.subTest(name=name):
                self.assertEqual(self.check("--", name)[0], 1)
                if not name.startswith("-"):
                    self.assertEqual(self.check(name)[0], 1)
        self.assertEqual(self.succeed(self.ravoctl("blocks", "lift", "--", *names)), "")
        self.assertEqual(self.states(), {})

    def test_names_that_disturb_a_terminal_are_escaped(self):
        self.start_limiter(enable=True, limit=1, time=5)
        self.fail_login(b"a\x1b[31m\xff")
        self.assertEqual(self.check(b"a\x1b[31m\xff"), (1, r"a\x1B[31m\xFF is blocked" + "\n"))
        self.assertTrue(self.table("blocks")[1].startswith(r"a\x1B[31m\xFF "))
        self.assertEqual(self.counters()[0]["username_hex"], b"a\x1b[31m\xff".hex())

    def test_wrong_usage_of_blocks_is_not_taken_for_a_block(self):
        for arguments in (["check"], ["check", "a", "b"], ["check", "-a"], ["check", "--nix", "a"],
                          ["chekc", "a"], ["fail"], ["lift"], ["lift", "a", "--all"], ["lift", "--nix"],
                          ["-n", "some"]):
            with self.subTest(arguments=arguments):
                self.fails(self.ravoctl("blocks", *arguments), 2)

    # --- Sessions ---

    def add_sessions(self):
        """One that has ended, one that was lost, two that are open; ids 1 to 6. Returns now."""
        now = int(time.time())
        for user, source, age, action, uptime, received in (
                ("alice", "203.0.113.1", 7200, 1, 0, 0), ("bob", "203.0.113.2", 7000, 1, 0, 0),
                ("alice", "203.0.113.1", 3600, 2, 3600, 5000000), ("bob", "203.0.113.2", 3000, 3, 4000, 7000),
                ("alice", "203.0.113.1", 600, 1, 0, 0), ("carol", "203.0.113.3", 300, 1, 0, 0)):
            self.add("sessions", f"username={user}", f"source_ip={source}", f"time={now - age}", f"action={action}",
                     f"uptime={uptime}", f"rx_total={received}", "vpn_type=4", "vpn_ip=10.8.0.2")
        return now

    def test_sessions_are_put_together_from_their_rows(self):
        self.start_ravod()
        now = self.add_sessions()
        listed = self.json("sessions")
        self.assertEqual((listed["schema"], listed["more"], listed["total"]), ("ravoctl.sessions/1", False, None))
        rows = listed["rows"]
        self.assertEqual([(row["id"], row["username"], row["state"]) for row in rows],
                         [(3, "alice", "ended"), (4, "bob", "lost"), (5, "alice", "open"), (6, "carol", "open")])
        self.assertEqual(rows[0], {"id": 3, "username": "alice", "vpn_type": 4, "source_ip": "203.0.113.1",
                                   "vpn_ip": "10.8.0.2", "device_info": "", "outgoing": "", "start": now - 7200,
                                   "end": now - 3600, "duration": 3600, "received": 5000000, "sent": 0,
                                   "state": "ended"})
        self.assertEqual((rows[2]["end"], rows[2]["received"]), (None, None))
        self.assertTrue(600 <= rows[2]["duration"] <= 600 + time.time() - now)
        lines = self.table("sessions", "--utc")
        self.assertEqual(lines[0].split(), ["id", "username", "source_ip", "vpn_ip", "start", "duration",
                                            "received", "sent", "state"])
        self.assertRegex(lines[1], r"^ 3 +alice .*Z +1:00:00 +5.0 MB +0 B +ended$")
        self.assertRegex(lines[4], r"^ 6 +carol .*Z +0:05:\d\d +open$")
        self.assertEqual(lines[5], "4 sessions")

    def test_sessions_are_selected_by_time_user_and_state(self):
        self.start_ravod()
        self.add_sessions()
        for arguments, ids in ((["--open"], [5, 6]), (["--open", "-u", "alice"], [5]), (["-u", "alice"], [3, 5]),
                               (["-S", "-55min"], [4, 5, 6]), (["-U", "-65min"], [3, 4]),
                               (["-S", "-1h 10min", "-U", "-55min"], [3, 4]), (["-n", "1"], [6]),
                               (["-n", "2", "-r"], [6, 5]), (["--filter", "state=lost"], [4]),
                               (["--sort", "received", "-n", "1"], [3]), (["--source", "203.0.113.3"], [6]),
                               (["--type", "openvpn", "-n", "all"], [3, 4, 5, 6]), (["--type", "pptp"], [])):
            with self.subTest(arguments=arguments):
                self.assertEqual([row["id"] for row in self.json("sessions", *arguments)["rows"]], ids)
        self.assertEqual(self.table("sessions", "-n", "1")[-1], "the newest 1 session; -n all shows all")

    def test_newest_sessions_of_a_long_table_are_those_of_the_whole_list(self):
        self.start_ravod()
        now = int(time.time())
        rows = [(f"u{n % 7}", uptime, now - 100000 + 10 * n + uptime, action)
                for n in range(4500) for uptime, action in ((0, 1), (3 + n % 50, 2)) if n % 9 or action == 1]
        rows.sort(key=lambda row: row[2])
        with sqlite3.connect(DATABASE) as database:
            database.executemany(
                "INSERT INTO conn_server_log (username, vpn_type, uptime, time, device_info, source_ip, vpn_ip, tx_rate,"
                " rx_rate, tx_total, rx_total, outgoing, action) VALUES (?, 4, ?, ?, '', '', '', 0, 0, 0, 0, '', ?)", rows)
        database.close()
        columns = ["-c", "id,username,start,end,state"]
        everything = self.json("sessions", "-n", "all", *columns)["rows"]
        self.assertEqual(len(everything), 4500)
        for condition, count, wanted in (([], 30, lambda row: True), (["-u", "u3"], 30, lambda row: row["username"] == "u3"),
                                         (["--filter", "state=open"], 300, lambda row: row["state"] == "open")):
            with self.subTest(condition=condition):
                self.assertEqual(self.json("sessions", "-n", str(count), *condition, *columns)["rows"],
                                 [row for row in everything if wanted(row)][-count:])

    def test_one_session_is_found_by_any_of_its_rows(self):
        self.start_ravod()
        self.add_sessions()
        for row_id, session_id in ((1, 3), (3, 3), (2, 4), (5, 5)):
            shown = self.json("sessions", "show", str(row_id))
            self.assertEqual([row["id"] for row in shown["rows"]], [session_id])
        self.assertIn("state        lost\n", self.succeed(self.ravoctl("sessions", "show", "2")))
        self.fails(self.ravoctl("sessions", "show", "7"), 1, "no session", "7")
        self.fails(self.ravoctl("sessions", "show"), 2, "id")

    def test_top_ranks_users_by_their_bytes(self):
        self.start_ravod()
        self.add_sessions()
        rows = self.json("sessions", "top")["rows"]
        self.assertEqual([(row["username"], row["sessions"], row["open"], row["total"]) for row in rows],
                         [("alice", 2, 1, 5000000), ("bob", 1, 0, 7000), ("carol", 1, 1, 0)])
        self.assertTrue(4200 <= rows[0]["connected"] <= 4300)
        self.assertNotIn("connected_when", rows[0])
        lines = self.table("sessions", "top", "-n", "2", "-S", "-2h")
        self.assertRegex(lines[1], r"^alice +2 +1 +1:10:\d\d +5.0 MB +0 B +5.0 MB  █")
        self.assertEqual(lines[3], "the 2 users with the largest total; -n all shows all")
        self.assertEqual([row["username"] for row in self.json("sessions", "top", "--sort", "connected", "-r")["rows"]],
                         ["carol", "bob", "alice"])

    def test_top_adds_numbers_that_are_as_large_as_can_be(self):
        self.start_ravod()
        for _ in range(2):
            self.succeed(self.ravoctl("sessions", "add", "username=dave", "time=100", "action=2",
                                      f"rx_total={2**63 - 1}", "tx_total=1"))
        [row] = self.json("sessions", "top")["rows"]
        self.assertEqual((row["received"], row["sent"], row["total"]), (2**63 - 1, 2, 2**63 - 1))

    def follow(self, *words):
        follower = subprocess.Popen([os.environ["RAVOCTL"], *words, "-f", "-n", "1", "-u", "bob", "-o", "jsonl"],
                                    stdout=subprocess.PIPE, text=True)
        self.addCleanup(follower.stdout.close)
        self.addCleanup(follower.wait)
        self.addCleanup(follower.kill)
        return follower.stdout, json.loads(follower.stdout.readline())

    def test_followed_rows_come_as_they_are_recorded(self):
        self.start_ravod()
        tables = ("sessions", "outgoing")
        bob = ["username=bob", "action=2", "uptime=5", "time=now"]
        for table in tables:
            self.add(table, *bob)
        followed = [(*self.follow(*words), member, shown) for words, member, shown in (
            (ROWS, "action", 2), (["sessions"], "state", "ended"), (["outgoing"], "action", 2))]
        for table in tables:
            self.add(table, "username=eve", "action=1", "time=now")
            self.add(table, *bob)
        for output, first, member, shown in followed:
            row = json.loads(output.readline())
            self.assertEqual((row["id"], row["username"], row[member]), (first["id"] + 2, "bob", shown))

    # --- A terminal ---

    def on_terminal(self, *arguments, **variables):
        """What it writes to a terminal of 200 columns, and its exit status."""
        master, slave = os.openpty()
        environment = {**os.environ, "TERM": "xterm", **variables}
        with subprocess.Popen([os.environ["RAVOCTL"], *arguments], stdout=slave, stdin=subprocess.DEVNULL,
                              env=environment) as process:
            os.close(slave)
            written = b""
            try:
                while chunk := os.read(master, 65536):
                    written += chunk
            except OSError:
                pass  # the other side is closed
            os.close(master)
        return written.decode().replace("\r\n", "\n"), process.returncode

    def test_terminal_shows_colours_and_a_pager_unless_told_otherwise(self):
        self.start_ravod()
        self.add_sessions()
        listing = ["sessions", "--open", "-c", "id,state"]
        plain = self.succeed(self.ravoctl(*listing))
        self.assertNotIn("\x1b", plain)
        pager = "cat >/tmp/paged; echo done"
        for arguments, variables, colour, is_paged in (
            (listing, {"PAGER": pager}, True, True),
            (listing, {"PAGER": pager, "NO_COLOR": "1"}, False, True),
            (listing, {"PAGER": pager, "TERM": "dumb"}, False, True),
            ([*listing, "--no-pager"], {"PAGER": pager}, True, False),
            (listing, {"PAGER": ""}, True, False),
            (listing, {"PAGER": "cat", "NO_COLOR": "1"}, False, False),
        ):
            with self.subTest(arguments=arguments, variables=variables):
                written, status = self.on_terminal(*arguments, **variables)
                self.assertEqual(status, 0)
                if is_paged:
                    self.assertEqual(written, "done\n")
                    with open("/tmp/paged", encoding="utf-8") as file:
                        written = file.read()
                self.assertEqual("\x1b[32mopen\x1b[0m" in written, colour)
                self.assertEqual(re.sub(r"\x1b\[\d*m", "", written), plain)

    def test_pager_that_is_left_early_is_no_failure(self):
        self.start_ravod()
        self.add_sessions()
        self.assertEqual(self.on_terminal("sessions", "--json", PAGER="exec true")[1], 0)

    # --- The limiter's settings, and everything at a glance ---

    def test_limiter_settings_are_set_kept_and_looked_at(self):
        vpncaas = self.start_limiter()
        with open(SETTINGS, "w", encoding="utf-8") as file:
            json.dump({"more": {"a": 1}, "global": {"other": [1]}}, file)
        os.chmod(SETTINGS, 0o640)
        self.assertEqual(self.table("limiter")[0], "limiter  off")
        for words, expected, text in (
            (["on", "limit=3", "time=2.5"], (True, 3, 2.5), "on: 3 failed logins block a user for 2.5 minutes"),
            (["time=1"], (True, 3, 1), "on: 3 failed logins block a user for 1 minute"),
            (["enable=off"], (False, 3, 1), "off; when it is on, 3 failed logins block a user for 1 minute"),
            (["enable=true", "limit=1"], (True, 1, 1), "on: 1 failed login blocks a user for 1 minute"),
        ):
            with self.subTest(words=words):
                self.assertEqual(self.table("limiter", "set", *words)[0], "limiter  " + text)
                self.assertEqual(self.table("limiter", "show"), ["limiter  " + text, "file     " + SETTINGS])
                shown = self.json("limiter")
                self.assertEqual(shown.pop("schema"), "ravoctl.limiter/1")
                self.assertEqual(shown, dict(zip(("enable", "limit", "time"), expected)))
                with open(SETTINGS, encoding="utf-8") as file:
                    self.assertEqual(json.load(file), {"more": {"a": 1}, "global": {"other": [1], **shown}})
        self.assertEqual(os.stat(SETTINGS).st_mode & 0o777, 0o640)
        vpncaas.stop()
        self.fails(self.ravoctl("limiter"), 3, "vpncaas")
        self.fails(self.ravoctl("limiter", "set", "off"), 5, SETTINGS, "blocks nobody", "vpncaas")

    def test_limiter_settings_that_would_do_harm_are_refused(self):
        self.start_limiter(enable=False)
        for words, *expected in (([], "settings"), (["limit=0"], "limit", "1 to"), (["limit=1.5"], "limit"),
                                 (["time=0"], "time"), (["time=nan"], "time"), (["enable=1"], "enable"), (["nix"], "nix"),
                                 (["on"], "limit=FAILURES"), ([b"\x1b=1"], r"\x1B")):
            with self.subTest(words=words):
                self.fails(self.ravoctl("limiter", "set", *words), 2, *expected)
        with open(SETTINGS, encoding="utf-8") as file:
            self.assertEqual(json.load(file), {"global": {"enable": False}})
        with open(SETTINGS, "w", encoding="utf-8") as file:
            file.write("[")
        self.fails(self.ravoctl("limiter", "set", "off"), 7, "damaged", "nothing was changed")
        self.fails(self.ravoctl("limiter"), 8, "could not read")

    def test_status_tells_everything_at_a_glance(self):
        self.start_limiter(enable=True, limit=2, time=5)
        self.add_sessions()
        self.add("servers", "username=a")
        self.fail_login("mallory", "mallory", "eve")
        shown = self.json("status")
        logins = shown.pop("logins_by_hour")
        self.assertEqual((len(logins), sum(logins), logins[-1] >= 2), (24, 4, True))
        self.assertEqual(shown, {
            "schema": "ravoctl.status/1", "rows": {"sessions": 6, "outgoing": 0, "servers": 1, "devices": 0, "blocks": 2},
            "open_sessions": 2, "blocked_users": 1, "limiter": {"enable": True, "limit": 2, "time": 5}})
        lines = self.table("status")
        for line in ("sessions   6 rows, 2 open now", "servers    1 row", "blocks     2 rows, 1 blocked now",
                     "limiter    on: 2 failed logins block a user for 5 minutes", "endpoint   " + ENDPOINT):
            self.assertIn(line, lines)
        self.assertRegex("\n".join(lines), r"logins     4 in the last 24 hours  ·{21}[·▁-█]{2}█\n")

    def test_status_without_settings_or_daemon_says_so(self):
        self.fails(self.ravoctl("status"), 3, "not reachable")
        self.start_ravod()
        lines = self.table("status")
        self.assertIn("blocks     0 rows", lines)
        self.assertTrue([line for line in lines if line.startswith("limiter    not known, so nobody is blocked: vpncaas")])
        self.assertIsNone(self.json("status")["blocked_users"])

    # --- Calling by hand ---

    def test_call_prints_a_reply_as_text_or_as_hex_dump(self):
        self.start(os.environ["ECHO_ENDPOINT"], "@/echo")
        call = ["call", "any", "--endpoint", "@/echo"]
        for payload, shown in (
            (["--text", '{"a": "zoë"}'], '{"a": "zoë"}\n'), (["--text", '["a"]'], '["a"]\n'),
            (["--text", "{}"], "{}\n"), (["--text", "line\n"], "line\n"), (["--text", ""], ""),
            ([], ""), (["--hex", "41 42\n43"], "ABC\n"),
            (["--hex", "00ff41"], "00000000  00 ff 41" + " " * 39 + "  ..A\n"),
            (["--hex", "1b5b"], "00000000  1b 5b" + " " * 42 + "  .[\n"),
        ):
            with self.subTest(payload=payload):
                self.assertEqual(self.succeed(self.ravoctl(*call, *payload)), shown)
        dump = self.succeed(self.ravoctl(*call, "--hex", "00" * 17)).splitlines()
        self.assertEqual([line[:8] for line in dump], ["00000000", "00000010"])

    def test_call_sends_files_and_prints_raw_bytes(self):
        self.start(os.environ["ECHO_ENDPOINT"], "echo")
        content = bytes(range(256)) * 4096
        with open("/tmp/payload", "wb") as file:
            file.write(content)
        call = ["call", "any", "--endpoint", "echo", "--raw", "--file"]
        self.assertEqual(self.ravoctl(*call, "/tmp/payload").stdout, content)
        self.assertEqual(self.ravoctl(*call, "-", input=content).stdout, content)

    def test_call_reaches_the_daemon(self):
        self.start_ravod()
        self.add("sessions", "username=alice")
        query = struct.pack("=qqqq", 0, 1, 0, 0).ljust(QUERY_SIZE, b"\0")
        result = self.ravoctl("call", "db_conn_server_log_query", "--raw", "--hex", query.hex())
        self.assertEqual(len(result.stdout), 24 + 5200)
        self.assertEqual(struct.unpack("=QQ", result.stdout[:16]), (1, 1))
        self.assertEqual(self.succeed(self.ravoctl("call", "db_event_insert")), "")

    def test_call_that_the_daemon_refuses_ends_with_8(self):
        self.start_ravod()
        for method in ("nix", "DB_EVENT_INSERT", "db_conn_insert"):
            self.fails(self.ravoctl("call", method, "--text", "short"), 8, "not answered")

    def test_call_refuses_what_the_bus_cannot_take(self):
        with open("/tmp/large", "wb") as file:
            file.truncate(4 * 1024 * 1024 + 1)
        for arguments, *words in (
            (["m", "--hex", "0g"], "--hex", "g"), (["m", "--hex", "012"], "--hex", "odd"),
            (["m", "--file", "/nix"], "/nix", "No such file"), (["m", "--file", "/tmp"], "/tmp"),
            (["m", "--file", "/tmp/large"], "4194304"), (["m", "--file", "/dev/zero"], "4194304"),
            (["m", "--text", "a", "--hex", "00"], "--text", "--hex"),
            (["m", "--endpoint", "a/b"], "--endpoint"), (["m", "--endpoint", "@"], "--endpoint"),
            (["m", "--endpoint", "@" + "x" * 108], "107"), (["x" * 256], "255"), ([""], "255"),
            (["m", "--timeout", "0"], "--timeout"),
        ):
            with self.subTest(arguments=arguments):
                self.fails(self.ravoctl("call", *arguments), 2, *words)

    # --- The report ---

    def test_report_is_a_page_that_needs_nothing_else(self):
        self.start_ravod()
        now = int(time.time())
        self.add("sessions", "username=<b>alice", "source_ip=203.0.113.11", f"time={now - 7200}",
                 "action=1")
        self.add("sessions", "username=<b>alice", "source_ip=203.0.113.11", f"time={now - 3600}",
                 "uptime=3600", "rx_total=1000", "tx_total=2000000", "action=2")
        self.assertEqual(self.succeed(self.ravoctl("report", "--html", "/tmp/page.html")), "")
        with open("/tmp/page.html", encoding="utf-8") as file:
            page = file.read()
        self.assertEqual(page.count("1:00 h, 1.0 kB in, 2.0 MB out"), 1)
        self.assertIn("&lt;b&gt;alice", page)
        self.assertNotIn("<b>", page)
        for drawing in re.findall("<svg.*?</svg>", page, re.S):
            xml.etree.ElementTree.fromstring(drawing)
        self.assertEqual(os.listdir("/tmp").count("page.html"), 1)
        self.assertEqual([name for name in os.listdir("/tmp") if name.endswith(".new")], [])
        self.assertEqual(self.succeed(self.ravoctl("report", "--html", "-"))[:15],
                         "<!DOCTYPE html>")
        none = self.succeed(self.ravoctl("report", "--html", "-", "-S", "-30min"))
        self.assertIn("No session was recorded", none)

    def test_report_has_the_sessions_of_many_pages(self):
        self.start_ravod()
        now = int(time.time())
        with sqlite3.connect(DATABASE) as database:
            database.executemany(
                "INSERT INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
                "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) "
                "VALUES ('u', 4, 10, ?, '', '', '', 0, 0, 0, 0, '', 2)",
                [(now - n,) for n in range(1, 4502)])
        page = self.succeed(self.ravoctl("report", "--html", "-", "--since", "2 days ago"))
        self.assertIn("<dt>sessions</dt><dd>4501</dd>", page)

    def test_report_that_cannot_be_made_says_why_and_leaves_no_file(self):
        for arguments, *words in (
            (["--since", "soon"], "--since", "soon", "yesterday"),
            (["--until", "2026-02-30"], "--until"), (["--since=@-5"], "--since"),
            (["--until", "@99999999999999"], "--until"),
            (["--since", "today", "--until", "yesterday"], "not before"),
        ):
            with self.subTest(arguments=arguments):
                self.fails(self.ravoctl("report", "--html", "/tmp/page.html", *arguments), 2, *words)
        self.fails(self.ravoctl("report"), 2, "--html")
        self.fails(self.ravoctl("report", "--html", "/tmp/page.html"), 3, ENDPOINT)
        self.start_ravod()
        self.fails(self.ravoctl("report", "--html", "/nix/page.html"), 7, "/nix/page.html",
                   "No such file")
        self.assertEqual(os.listdir("/tmp").count("page.html"), 0)

    def test_report_on_a_full_disk_keeps_the_old_one(self):
        self.start_ravod()
        with open("/small/page.html", "w", encoding="utf-8") as file:
            file.write("old")
        with open("/small/rest", "wb") as file, self.assertRaises(OSError):
            while True:
                os.write(file.fileno(), bytes(4096))
        self.fails(self.ravoctl("report", "--html", "/small/page.html"), 7, "No space")
        with open("/small/page.html", encoding="utf-8") as file:
            self.assertEqual(file.read(), "old")
        self.assertEqual(sorted(os.listdir("/small")), ["page.html", "rest"])

    # --- Help ---

    def test_help_names_every_field_and_what_fits_into_it(self):
        self.assertIn("Exit status", self.succeed(self.ravoctl("--help")))
        for table, fields in TABLES.items():
            text = self.succeed(self.ravoctl(table, VERBS[table], "--help"))
            self.assertNotRegex(text, r"\n  (id|dev_uuid) ")
            for name, kind in fields.items():
                fits = str(kind) if is_text(kind) else "{} to {}".format(*EXTREMES[kind])
                self.assertTrue(re.search(rf"\n  {name} .*{fits}", text), name)

    def test_version_is_told(self):
        self.assertRegex(self.succeed(self.ravoctl("--version")), r"^ravoctl \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
