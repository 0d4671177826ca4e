"""ravoctl against a running ravod."""
import json
import os
import re
import socket
import struct
import subprocess
import threading
import time
import unicodedata
import unittest

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
}


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
        self.assertEqual(self.succeed(self.ravoctl(table, "add", *words)), "")

    def table(self, *arguments):
        return self.succeed(self.ravoctl(*arguments)).splitlines()

    def json(self, *arguments):
        return json.loads(self.succeed(self.ravoctl(*arguments, "--json")))

    def names(self, *arguments):
        return [row["username"] for row in self.json("sessions", *arguments)["rows"]]

    def add_five(self):
        for name in ("eve", "bob", "dan", "alice", "carol"):
            self.add("sessions", f"username={name}", f"uptime={len(name)}")

    # --- Listing ---

    def test_empty_table_is_a_success(self):
        self.start_ravod()
        for table in TABLES:
            self.assertEqual(self.table(table), ["no rows; the table has 0"])
            self.assertEqual(self.json(table), {"start": 0, "rows": [], "count": 0, "total": 0})

    def test_pages_are_counted_from_one_and_say_where_they_are(self):
        self.start_ravod()
        self.add_five()
        self.assertEqual(self.names("--per-page", "2"), ["eve", "bob"])
        self.assertEqual(self.names("--per-page", "2", "--page", "3"), ["carol"])
        lines = self.table("sessions", "--per-page", "2", "--page", "2")
        self.assertEqual(lines[-1], "rows 3-4 of 5")
        self.assertEqual([line.split()[1] for line in lines[1:-1]], ["dan", "alice"])
        self.assertEqual(self.table("sessions", "--page", "4"), ["no rows; the table has 5"])

    def test_start_and_count_are_in_rows(self):
        self.start_ravod()
        self.add_five()
        self.assertEqual(self.names("--start", "1", "--count", "3"), ["bob", "dan", "alice"])
        self.assertEqual(self.json("sessions", "--start", "1", "--count", "0"),
                         {"start": 1, "rows": [], "count": 0, "total": 5})

    def test_shows_twenty_rows_unless_told_otherwise(self):
        self.start_ravod()
        for n in range(21):
            self.add("sessions", f"uptime={n}")
        self.assertEqual(self.table("sessions")[-1], "rows 1-20 of 21")
        self.assertEqual(self.table("sessions", "--start", "0")[-1], "rows 1-20 of 21")

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
                    rows = self.json(table, "--order", name)["rows"]
                    self.assertEqual([int(row[name]) for row in rows], [1, 2, 3])
                    rows = self.json(table, "--order", name, "--desc")["rows"]
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

    def test_filtered_list_does_not_take_the_total_for_its_matches(self):
        self.start_ravod()
        self.add_five()
        self.assertEqual(self.table("sessions", "--filter", "username=bob")[-1],
                         "rows 1-1 that match; the table has 5")
        self.assertEqual(self.table("sessions", "--filter", "username=nobody"),
                         ["no rows that match; the table has 5"])

    def test_bad_list_requests_are_refused_and_say_why(self):
        self.start_ravod()
        for arguments, *words in (
            (["--order", "nix"], "nix", "username, vpn_type"),
            (["--filter", "nix=1"], "nix", "username, vpn_type"),
            (["--filter", "username"], "FIELD=VALUE"),
            (["--filter", "username="], "username", "empty"),
            (["--filter", "vpn_type=four"], "vpn_type", "-2147483648 to 2147483647"),
            (["--filter", "username=" + "x" * 1025], "username", "1024"),
            (["--page", "0"], "--page", "1"),
            (["--per-page", "0"], "--per-page", "100000"),
            (["--per-page", "100001"], "--per-page", "100000"),
            (["--start", "-1"], "--start", "0"),
            (["--count", "1"], "--start"),
            (["--page", "1", "--start", "1"], "--page", "--start"),
            (["--json", "--wide"], "--json", "--wide"),
            (["nix"], "nix"),
        ):
            with self.subTest(arguments=arguments):
                self.fails(self.ravoctl("sessions", *arguments), 1, *words)

    # --- Adding ---

    def check_extreme(self, table, which):
        fields = TABLES[table]
        expected = {name: "x" * kind if is_text(kind) else EXTREMES[kind][which]
                    for name, kind in fields.items()}
        self.add(table, *(f"{name}={value}" for name, value in expected.items()))
        row = self.json(table, "--desc", "--per-page", "1")["rows"][0]
        row.pop("id")
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
                        result = self.ravoctl(table, "add", f"{name}={text}")
                        self.fails(result, 1, name, words)
            self.assertEqual(self.table(table), ["no rows; the table has 0"])

    def test_add_refuses_what_is_no_assignment(self):
        self.start_ravod()
        for words, *expected in (
            ([], "fields", "required"), (["username"], "username", "FIELD=VALUE"), (["nix=1"], "nix"),
            (["id=1"], "id", "table"), (["action=1", "action=2"], "action", "twice"),
        ):
            with self.subTest(words=words):
                self.fails(self.ravoctl("sessions", "add", *words), 1, *expected)
        self.assertEqual(self.table("sessions"), ["no rows; the table has 0"])

    def test_times_are_taken_in_three_forms_and_shown_in_utc(self):
        self.start_ravod()
        environment = {**os.environ, "TZ": "America/New_York"}
        before = int(time.time())
        for text in ("1795222858", "2026-11-21T01:00:58Z", "now", "9223372036854775807"):
            self.succeed(self.ravoctl("sessions", "add", f"time={text}", env=environment))
        times = [row["time"] for row in self.json("sessions")["rows"]]
        self.assertEqual(times[:2], [1795222858, 1795222858])
        self.assertTrue(before <= times[2] <= time.time())
        lines = self.succeed(self.ravoctl("sessions", env=environment)).splitlines()
        self.assertIn(" 2026-11-21T01:00:58Z ", lines[1])
        self.assertIn(" 9223372036854775807 ", lines[4])  # no year that ISO 8601 could write
        for text in ("2026-02-30T00:00:00Z", "2026-11-21", "yesterday", "2026-11-21T01:00:58Zx"):
            self.fails(self.ravoctl("sessions", "add", f"time={text}"), 1, "time", "epoch")

    # --- Output ---

    def test_nothing_that_disturbs_a_terminal_comes_out_raw(self):
        self.start_ravod()
        for raw, shown in (
            (b"a\x1b[31mb", r"a\x1B[31mb"), (b"a\nb\rc\td", r"a\nb\rc\td"), (b"\x01\x7f", r"\x01\x7F"),
            (b"\xff\xc3", r"\xFF\xC3"), (b"\xc2\x9b2J", r"\xC2\x9B2J"), (b"a\\n", r"a\\n"),
            (b"\xc0\xaf", r"\xC0\xAF"), (b"\xed\xa0\x80", r"\xED\xA0\x80"),
            (b"\xf4\x90\x80\x80", r"\xF4\x90\x80\x80"), (b"a\xe2\x80\xaeb", r"a\xE2\x80\xAEb"),
            (b"\xe2\x80\xa8", r"\xE2\x80\xA8"), ("zoë €𝄞".encode(), "zoë €𝄞"),
        ):
            with self.subTest(raw=raw):
                self.add("servers", b"username=" + raw)
                self.assertEqual(self.table("servers", "--desc", "--per-page", "1")[1].split("  ")[1]
                                 .strip(), shown)

    def test_wrong_words_are_escaped_in_messages_too(self):
        result = self.ravoctl("sessions", "add", b"\x1b[31m=1")
        self.fails(result, 1, r"\x1B[31m")
        self.assertNotIn(b"\x1b", result.stderr)

    def test_columns_line_up_behind_characters_of_any_width(self):
        self.start_ravod()
        for name in ("bob", "zoë", "zoe\u0308", "日本語", "한국"):
            self.add("outgoing", f"username={name}", "action=1")
        lines = self.table("outgoing")
        self.assertEqual(len({width(line) for line in lines[1:-1]}), 1, lines)

    def test_narrow_table_cuts_long_texts_and_wide_table_shows_all_fields(self):
        self.start_ravod()
        self.add("sessions", "username=" + "é" * 512, "outgoing=tun7")
        narrow = self.table("sessions")
        self.assertIn("  " + "é" * 31 + "…  ", narrow[1])
        self.assertNotIn("tun7", narrow[1])
        wide = self.table("sessions", "--wide")
        self.assertIn("é" * 512, wide[1])
        self.assertEqual(wide[0].split(), ["id", *TABLES["sessions"]])

    def test_json_is_valid_whatever_the_bytes_are(self):
        self.start_ravod()
        every_byte = bytes(range(1, 256))
        self.add("sessions", b"username=" + every_byte, b"outgoing=zo\xc3\xab")
        row = self.json("sessions")["rows"][0]
        self.assertEqual(bytes.fromhex(row["username_hex"]), every_byte)
        self.assertTrue(row["username"].startswith(every_byte[:127].decode() + "\ufffd"))
        self.assertEqual(row["outgoing"], "zoë")
        self.assertNotIn("outgoing_hex", row)

    def test_output_that_cannot_be_written_is_an_error(self):
        self.start_ravod()
        with open("/dev/full", "wb") as full:
            result = subprocess.run([os.environ["RAVOCTL"], "sessions"], stdout=full,
                                    stderr=subprocess.PIPE, check=False)
        self.assertEqual(result.returncode, 2)
        self.assertIn(b"output", result.stderr)

    # --- Failing daemon ---

    def test_no_daemon_is_told_from_an_empty_list(self):
        for table in TABLES:
            self.fails(self.ravoctl(table), 3, "not reachable")
            self.fails(self.ravoctl(table, "--json"), 3, "not reachable")
            self.fails(self.ravoctl(table, "add", "username=x"), 3, "not reachable")
        self.fails(self.ravoctl("call", "db_event_insert"), 3, "not reachable")

    def test_wrong_usage_needs_no_daemon(self):
        for arguments in ([], ["nix"], ["--nix"], ["call"], ["sessions", "--order", "nix"]):
            self.fails(self.ravoctl(*arguments), 1)

    def test_daemon_that_does_not_answer_is_told_from_one_that_is_not_there(self):
        closing = Closing()
        self.addCleanup(closing.stop)
        self.fails(self.ravoctl("sessions"), 4, "no answer")
        self.fails(self.ravoctl("sessions", "add", "username=x"), 4, "no answer")
        self.fails(self.ravoctl("call", "db_event_insert"), 4, "no answer")

    def test_rows_that_could_not_be_counted_are_told(self):
        with open(DATABASE, "wb") as database:
            database.write(b"this is no database" * 1000)
        self.start_ravod()
        result = self.ravoctl("sessions")
        self.assertEqual(result.returncode, 4)
        self.assertIn(b"could not count", result.stderr)
        self.assertEqual(result.stdout, b"no rows; the table has an unknown number\n")
        result = self.ravoctl("sessions", "--json")
        self.assertEqual(result.returncode, 4)
        self.assertIsNone(json.loads(result.stdout)["total"])

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

    def test_call_that_the_daemon_refuses_ends_with_4(self):
        self.start_ravod()
        for method in ("nix", "DB_EVENT_INSERT", "db_conn_insert"):
            self.fails(self.ravoctl("call", method, "--text", "short"), 4, "not answered")

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
                self.fails(self.ravoctl("call", *arguments), 1, *words)

    # --- Help ---

    def test_help_names_every_field_and_what_fits_into_it(self):
        self.assertIn("Exit status", self.succeed(self.ravoctl("--help")))
        for table, fields in TABLES.items():
            text = self.succeed(self.ravoctl(table, "add", "--help"))
            self.assertNotRegex(text, r"\n  id ")
            for name, kind in fields.items():
                fits = str(kind) if is_text(kind) else "{} to {}".format(*EXTREMES[kind])
                self.assertTrue(re.search(rf"\n  {name} .*{fits}", text), name)

    def test_version_is_told(self):
        self.assertRegex(self.succeed(self.ravoctl("--version")), r"^ravoctl \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
