"""What ravoctl does for those who run a daemon: doctor, deletes, exports, metrics, watch, completion."""
import fcntl
import json
import os
import pty
import re
import resource
import select
import shutil
import signal
import sqlite3
import subprocess
import termios
import unittest

from support.ravod import DATABASE, TIMEOUT_SECONDS, RavodTest

# Prints what bash would offer for the words given to it, of which the last one is at the cursor.
COMPLETE = """
source <("$1" completion bash); shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_ravoctl 2>/dev/null
printf '%s\\n' "${COMPREPLY[@]}"
"""


SETTINGS = "/etc/config/vpn_block.conf"
NOTIFIER = "/usr/local/sbin/notify"
LOG_LOCK = "/run/lock/ravo_log.lck"
SAVED = "/var/backups/ravod"


class ravoctl_ops(RavodTest):
    def ok(self, *arguments):
        return self.succeed(self.ravoctl(*arguments))

    def total(self, table):
        return self.listed(table)["total"]

    def rows(self, table):
        return self.listed(table)["rows"]

    def listed(self, table):
        return json.loads(self.ok(table, "--json", *(["--rows"] if table == "sessions" else [])))

    def add_sessions(self, *names):
        for name in names:
            self.ok("sessions", "add", f"username={name}", "time=1795222858")

    def put_sessions(self, first, last):
        with sqlite3.connect(DATABASE) as database:
            database.execute(
                f"WITH RECURSIVE n(i) AS (SELECT {first} UNION ALL SELECT i + 1 FROM n WHERE i < {last}) "
                "INSERT INTO conn_server_log SELECT i, '', 0, 0, 0, '', '', '', 0, 0, 0, 0, '', 0 FROM n")
        database.close()

    def set_up_limiter(self):
        with open(SETTINGS, "w", encoding="utf-8") as file:
            json.dump({"global": {"enable": True, "limit": 3, "time": 5}}, file)
        return self.start(os.environ["VPNCAAS"])

    # --- Doctor ---

    def set_up_everything(self):
        os.chmod("/etc/config/ravo", 0o700)
        os.makedirs(os.path.dirname(NOTIFIER), exist_ok=True)
        shutil.copy(os.environ["NOTIFY"], NOTIFIER)
        with open(LOG_LOCK, "w", encoding="utf-8"):
            os.chmod(LOG_LOCK, 0o600)
        vpncaas = self.set_up_limiter()
        return self.start_ravod(), vpncaas

    def findings(self, status):
        """{what: remedy} of each verdict. The clock and the room are this machine's."""
        result = self.ravoctl("doctor", "-o", "json")
        self.assertEqual(result.returncode, status, result.stdout)
        answer = json.loads(result.stdout)
        self.assertEqual(answer["schema"], "ravoctl.doctor/1")
        found = {"ok": {}, "warning": {}, "failed": {}}
        for line in answer["findings"]:
            if not re.search("clock|has room", line["what"]):
                found[line["verdict"]][line["what"]] = line.get("remedy")
        return found

    def test_doctor_finds_nothing_where_all_is_well(self):
        self.set_up_everything()
        found = self.findings(0)
        self.assertEqual((found["warning"], found["failed"]), ({}, {}))
        self.assertIn("ravod answers at @/var/run/ravod.sock", found["ok"])
        self.assertIn("/etc/config/ravo/ravo.db is sound", found["ok"])
        lines = self.ok("doctor").splitlines()
        self.assertIn("ok: 3 failed logins block a user for 300 s", lines)

    def test_doctor_names_each_fault_with_its_remedy(self):
        _, vpncaas = self.set_up_everything()
        self.add_sessions("alice")
        os.makedirs("/etc/openvpn/server")

        def put(path, text):
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)

        def damage():
            with open(DATABASE, "r+b") as file:
                file.seek(2048)
                file.write(b"\xff" * 4096)

        faults = (
            (lambda: os.chmod(LOG_LOCK, 0o666), "warning", "ravo_log.lck is open to others", "chmod 0600"),
            (lambda: os.remove(LOG_LOCK), "warning", "ravo_log.lck is missing", "systemd-tmpfiles"),
            (lambda: os.chmod("/var/log/network", 0o777), "failed", "/var/log/network can be written", "go-w"),
            (lambda: os.remove(NOTIFIER), "failed", "notify cannot be run", "ln -s"),
            (lambda: put("/etc/openvpn/client.conf", "client\n"), None, "client.conf", None),
            (lambda: os.mkfifo("/etc/openvpn/pipe.conf"), None, "pipe.conf", None),
            (lambda: put("/etc/openvpn/server/a.conf", " server 10.8.0.0 255.255.255.0\n"), "warning",
             "sessions of /etc/openvpn/server/a.conf are not recorded", "echo 'config "),
            (lambda: put("/etc/openvpn/server/b.conf", "server\nconfig /nix/ravod.conf\n"), "failed",
             "includes /nix/ravod.conf", "install"),
            (lambda: put("/etc/openvpn/server/c.conf", 'client-connect "/usr/sbin/ravo-openvpn connect"\n'),
             "ok", "c.conf has ravo-openvpn's hooks", None),
            (lambda: os.makedirs("/var/spool/ravo-openvpn/open/session"), None, "spool/ravo-openvpn", None),
            (lambda: os.makedirs("/var/spool/ravo-openvpn/waiting/event"), "warning",
             "spool/ravo-openvpn/waiting: 1", "ravo-openvpn replay"),
            (lambda: os.makedirs("/var/spool/ravo-ppp/waiting/event"), "warning", "spool/ravo-ppp/waiting: 1",
             "ravo-ppp replay"),
            (lambda: put("/var/log/network/RAVO.log", "1 [ERROR] x: RET = 13\n"), "warning", "full", "df -h"),
            (lambda: os.remove(SETTINGS), "warning", "there is no " + SETTINGS, "limiter set on"),
            (lambda: put(SETTINGS, '{"global": {"enable": false}}'), "warning", "limiter is off", "limiter set"),
            (lambda: put(SETTINGS, '{"global": {"enable": true, "limit": 3}}'), "warning", "no time", "limiter set"),
            (vpncaas.stop, "failed", "vpncaas is not reachable", "systemctl start vpncaas"),
            (damage, "failed", "ravo.db is damaged", "ravo-dbcheck"),
        )
        status = 0
        for make, verdict, what, remedy in faults:
            with self.subTest(what=what):
                make()
                status = 1 if verdict == "failed" else status
                found = self.findings(status)
                matches = [(each, text) for each, lines in found.items() for text in lines if what in text]
                self.assertEqual([each for each, _ in matches], [verdict] if verdict else [])
                if remedy:
                    self.assertIn(remedy, found[verdict][matches[0][1]])

    def test_doctor_without_a_daemon_says_how_to_start_it(self):
        result = self.ravoctl("doctor")
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"failed: @/var/run/ravod.sock is not reachable", result.stdout)
        self.assertIn(b" - remedy: systemctl start ravod", result.stdout)
    # --- Deletes and cleans ---

    def saved(self, output):
        return re.search(r"^\w+: \d+ rows saved in (\S+)$", output, re.M)[1]

    def refused(self, *arguments):
        """Refused as what the daemon would do otherwise; nothing was saved, nothing is gone."""
        before = self.rows(arguments[0])
        files = os.listdir(SAVED) if os.path.exists(SAVED) else []
        self.fails(self.ravoctl(*arguments), 1, "restart ravod", "--force")
        self.assertEqual(self.rows(arguments[0]), before)
        self.assertEqual(os.listdir(SAVED) if files else [], files)

    def test_delete_saves_the_table_and_names_what_is_gone(self):
        self.start_ravod()
        self.add_sessions("alice", "bob", "carol")
        output = self.ok("sessions", "delete", "2", "3")
        self.assertIn("gone: id=2 username=bob ", output)
        self.assertIn("\nsessions: 2 rows gone, 1 left\n", output)
        path = self.saved(output)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)
        with open(path, encoding="utf-8") as file:
            names = [json.loads(line).get("username") for line in file]
        self.assertEqual(names, [None, "alice", "bob", "carol", None])
        self.assertEqual(self.ok("sessions", "delete", "--no-save", "1")[:5], "gone:")
        self.assertEqual(len(os.listdir(SAVED)), 1)

    def test_a_session_is_deleted_with_both_its_rows(self):
        self.start_ravod()
        for name in ("a", "b"):
            self.ok("sessions", "add", f"username={name}", "time=100", "action=1")
            self.ok("sessions", "add", f"username={name}", "time=160", "uptime=60", "action=2")
        self.assertEqual([row["id"] for row in self.rows("sessions")], [1, 2, 3, 4])
        self.assertIn("sessions: 2 rows gone, 2 left", self.ok("sessions", "delete", "2"))
        self.assertEqual([row["username"] for row in self.rows("sessions")], ["b", "b"])

    def test_delete_of_a_row_that_is_not_there_deletes_nothing(self):
        self.start_ravod()
        self.add_sessions("alice")
        self.fails(self.ravoctl("sessions", "delete", "1", "2"), 1, "id 2", "nothing was deleted")
        self.assertEqual(self.total("sessions"), 1)
        self.assertEqual(self.ok("sessions", "clean").splitlines()[1:],
                         ["gone: id=1 username=alice uptime=0:00:00 time=2026-11-21T01:00:58+00:00 action=0",
                          "sessions: 1 rows gone, 0 left"])
        self.assertEqual(self.ok("sessions", "clean"), "sessions: there are no rows\n")
        self.fails(self.ravoctl("sessions", "delete"), 2, "ids")

    def test_what_the_daemon_would_do_otherwise_is_refused_until_its_restart(self):
        daemon = self.start_ravod()
        self.add_sessions("alice", "bob", "carol")
        self.ok("sessions", "delete", "1")
        self.refused("sessions", "clean")
        self.ok("sessions", "delete", "2")
        self.fails_with_5("0 rows gone, 1 left", "1 rows are still there", "sessions", "clean", "--force")
        for name in ("x", "y"):
            self.ok("outgoing", "add", f"username={name}")
        self.ok("outgoing", "clean")
        for name in ("x", "y"):
            self.ok("outgoing", "add", f"username={name}")
        self.refused("outgoing", "delete", "3")
        saved = self.fails_with_5("2 rows gone, 0 left", "ravoctl import", "outgoing", "delete", "3", "--force")
        self.assertIn(" 2 rows recorded, 0 before and 2 now", self.ok("import", self.saved(saved)))
        daemon.stop()
        self.start_ravod()
        self.ok("sessions", "clean")
        self.ok("outgoing", "delete", "5")
        self.assertEqual(self.total("outgoing"), 1)

    def test_a_note_that_cannot_be_written_is_not_lost(self):
        self.start_ravod()
        self.add_sessions("alice", "bob", "carol")
        self.ok("sessions", "delete", "1")

        def have_no_room():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))

        full = self.ravoctl("sessions", "delete", "2", "--no-save", preexec_fn=have_no_room, restore_signals=False)
        self.fails(full, 7, "/run/ravoctl.json", "cannot be written")
        self.assertEqual(self.total("sessions"), 2)
        self.refused("sessions", "clean")

    def test_output_to_a_closed_stream_goes_nowhere_else(self):
        self.start_ravod()
        self.add_sessions("alice", "bob")
        for arguments in (["sessions"], ["metrics"], ["export"], ["sessions", "delete", "1"], ["sessions", "delete", "2"]):
            with self.subTest(arguments=arguments):
                result = self.ravoctl(*arguments, preexec_fn=lambda: os.close(1))
                self.assertEqual(result.returncode, 7, result.stderr)
                self.assertIn(b"the output could not be written", result.stderr)
        self.assertEqual(self.total("sessions"), 0)

    def fails_with_5(self, output, complaint, *arguments):
        result = self.ravoctl(*arguments)
        self.assertEqual(result.returncode, 5, result.stderr)
        self.assertIn(output, result.stdout.decode())
        self.assertIn(complaint, result.stderr.decode())
        return result.stdout.decode()

    def test_only_one_delete_is_made_in_a_table_that_does_not_outlive_a_second(self):
        self.start_ravod()
        for name in ("a", "b", "c"):
            self.ok("servers", "add", f"username={name}")
            self.ok("devices", "register", f"mac={name}")
        self.refused("servers", "delete", "1", "2")
        self.ok("servers", "delete", "1")
        self.refused("servers", "delete", "2")
        self.refused("servers", "clean")
        self.assertIn("devices: 3 rows gone, 0 left", self.ok("devices", "clean"))
        self.ok("devices", "register", "mac=d")
        self.refused("devices", "delete", "4")

    def test_a_clean_that_ravoctl_did_not_make_is_told_by_the_look_afterwards(self):
        self.start_ravod()
        self.ok("call", "db_conn_server_log_clean")
        self.add_sessions("alice", "bob")
        saved = self.fails_with_5("2 rows gone, 0 left", "1 rows have vanished", "sessions", "delete", "1")
        self.ok("import", self.saved(saved))
        self.assertEqual([row["username"] for row in self.rows("sessions")], ["alice", "bob"])

    def test_prune_takes_the_old_rows(self):
        self.start_ravod()
        for hour in (1, 3, 2, 4):
            self.ok("sessions", "add", f"username=u{hour}", f"time={1795222858 + 3600 * hour}")
        names = lambda: [row["username"] for row in self.rows("sessions")]
        old = ["prune", "sessions", "--older-than", "@1795230058"]
        self.assertIn("sessions: 1 of 4 rows are to go, with a call", self.ok(*old, "--dry-run"))
        self.assertEqual(self.total("sessions"), 4)
        self.assertIn("sessions: 1 rows gone, 3 left", self.ok(*old))
        self.assertEqual(names(), ["u3", "u2", "u4"])
        self.assertIn("0 of 3 rows", self.ok(*old))
        self.ok("prune", "sessions", "--keep", "1", "--no-save")
        self.assertEqual(names(), ["u4"])
        for arguments in ([], ["sessions"], ["servers", "--keep", "1"], ["sessions", "--older-than", "soon"],
                          ["sessions", "--keep", "1", "--older-than", "now"]):
            self.fails(self.ravoctl("prune", *arguments), 2)

    # --- Export and import ---

    def test_an_export_brings_all_tables_back(self):
        vpncaas = self.set_up_limiter()
        daemon = self.start_ravod()
        self.add_sessions("o'brien", b"\xff\x01".decode("latin-1"), "zoë")
        self.ok("outgoing", "add", "username=x", "rx_total=-5", "country_code=AT")
        self.ok("servers", "add", "sid=s", "time=1")
        self.ok("devices", "register", "mac=a", "dev_name=d")
        self.ok("blocks", "fail", "mallory")
        self.assertEqual(self.ok("export", "--output", "/tmp/all.jsonl"), "")
        self.assertEqual(self.ok("export", "servers").count("\n"), 3)
        before = {table: self.rows(table) for table in ("sessions", "outgoing", "servers", "devices")}
        daemon.stop()
        shutil.rmtree("/etc/config/ravo")
        os.mkdir("/etc/config/ravo")
        self.start_ravod()
        self.assertEqual(self.ok("import", "/tmp/all.jsonl").splitlines(), [
            "blocks: 1 rows left out, since only ravod makes them",
            "devices: 1 rows recorded, 0 before and 1 now, with new id and dev_uuid",
            "outgoing: 1 rows recorded, 0 before and 1 now, with new id",
            "servers: 1 rows recorded, 0 before and 1 now, with new id",
            "sessions: 3 rows recorded, 0 before and 3 now, with new id",
        ])
        for table, rows in before.items():
            for row, other in zip(rows, self.rows(table), strict=True):
                row.pop("dev_uuid", None), other.pop("dev_uuid", None)
                self.assertEqual(row, other)
        vpncaas.stop()

    def test_a_spoiled_export_changes_nothing(self):
        self.start_ravod()
        self.add_sessions("alice", "bob")
        lines = self.ok("export", "sessions").splitlines(keepends=True)
        for spoiled, *words in ((lines[:-1], "line 3", "cut"), (lines[:2] + ["{\n"], "line 3", "no JSON"),
                                ([], "line 1", "empty")):
            with open("/tmp/spoiled", "w", encoding="utf-8") as file:
                file.writelines(spoiled)
            self.fails(self.ravoctl("import", "/tmp/spoiled"), 7, "/tmp/spoiled", *words)
        self.fails(self.ravoctl("import", "/nix"), 7, "/nix", "No such file")
        self.fails(self.ravoctl("import", "/dev/stdin", input=b"{}"), 7, "/dev/stdin", "read twice")
        self.assertEqual(self.total("sessions"), 2)
        self.fails(self.ravoctl("export", "--output", "/nix/file"), 7, "/nix/file")

    def test_an_export_with_tables_that_are_empty_is_whole(self):
        self.start_ravod()
        self.add_sessions("alice")
        self.ok("export", "--output", "/tmp/all.jsonl")
        self.assertIn("sessions: 1 rows recorded, 1 before and 2 now", self.ok("import", "/tmp/all.jsonl"))

    def test_an_import_into_a_table_that_gets_too_large_is_refused(self):
        self.start_ravod()
        self.add_sessions("alice")
        self.ok("export", "sessions", "--output", "/tmp/one")
        self.put_sessions(2, 100000)
        self.fails(self.ravoctl("import", "/tmp/one"), 1, "100000", "--force")
        self.assertIn("1 rows recorded", self.ok("import", "/tmp/one", "--force"))

    def test_a_long_export_tells_a_terminal_how_far_it_is(self):
        self.start_ravod()
        self.put_sessions(1, 2500)
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        command = [os.environ["RAVOCTL"], "export", "sessions", "--output", "/tmp/file"]
        self.assertEqual(subprocess.run(command, stderr=slave, check=False).returncode, 0)
        os.close(slave)
        self.assertEqual(self.read_until(master, b"K\r\x1b[K"),
                         b"\rsessions: 1000 of 2500\x1b[K\rsessions: 2000 of 2500\x1b[K\r\x1b[K")

    # --- Metrics ---

    def samples(self, text):
        """{name and labels: value}, from a text that keeps to the rules of the exposition format."""
        samples, families, family = {}, set(), None
        self.assertTrue(text.endswith("\n"))
        lines = text.splitlines()
        for n, line in enumerate(lines):
            if head := re.fullmatch(r"# HELP ([a-zA-Z_:][\w:]*) [^\\]+", line):
                family = head[1]
                self.assertNotIn(family, families)
                families.add(family)
                self.assertEqual(lines[n + 1], f"# TYPE {family} gauge")
            elif not line.startswith("# TYPE "):
                sample = re.fullmatch(r'([a-zA-Z_:][\w:]*)(\{[a-z_]+="[^"\\]*"\})? (\d+)', line)
                self.assertTrue(sample, line)
                self.assertEqual(sample[1], family)
                self.assertNotIn(line.split(" ")[0], samples)
                samples[line.split(" ")[0]] = int(sample[3])
        return samples

    def test_metrics_tell_what_the_tables_tell(self):
        self.set_up_limiter()
        self.start_ravod()
        self.ok("sessions", "add", "username=a", "source_ip=1", "time=100", "action=1")
        self.ok("sessions", "add", "username=b", "source_ip=2", "time=100", "action=1")
        self.ok("sessions", "add", "username=b", "source_ip=2", "time=160", "uptime=60", "action=2",
                "rx_total=1000", "tx_total=2000")
        for name in ("m", "m", "m", "n"):
            self.ok("blocks", "fail", name)
        self.assertEqual(self.samples(self.ok("metrics")), {
            "ravod_up": 1, 'ravod_rows{table="sessions"}': 3, 'ravod_rows{table="outgoing"}': 0,
            'ravod_rows{table="servers"}': 0, 'ravod_rows{table="devices"}': 0,
            'ravod_rows{table="blocks"}': 2, "ravod_open_sessions": 1,
            'ravod_recorded_bytes{direction="received"}': 1000,
            'ravod_recorded_bytes{direction="sent"}': 2000, "ravod_blocked_users": 1,
            "ravod_failed_logins": 4, "ravod_limiter_settings_available": 1, "ravod_limiter_enabled": 1,
            "ravod_limiter_limit": 3, "ravod_limiter_block_seconds": 300,
        })

    def test_metrics_replace_a_collectors_file_and_tell_of_a_daemon_that_is_down(self):
        os.mkdir("/tmp/collector")
        with open("/tmp/collector/ravod.prom", "w", encoding="utf-8") as file:
            file.write("old")
        result = self.ravoctl("metrics", "--output", "/tmp/collector/ravod.prom")
        self.assertEqual((result.returncode, result.stdout), (0, b""))
        with open("/tmp/collector/ravod.prom", encoding="utf-8") as file:
            self.assertEqual(self.samples(file.read()),
                             {"ravod_up": 0, "ravod_limiter_settings_available": 0})
        self.assertEqual(os.listdir("/tmp/collector"), ["ravod.prom"])
        self.assertEqual(os.stat("/tmp/collector/ravod.prom").st_mode & 0o444, 0o444)

    # --- Watch ---

    def read_until(self, fd, text):
        output = b""
        while text not in output:
            self.assertTrue(select.select([fd], [], [], TIMEOUT_SECONDS)[0], output)
            output += os.read(fd, 65536)
        return output

    def test_watch_tells_of_connections_and_blocks_until_it_is_interrupted(self):
        self.set_up_limiter()
        daemon = self.start_ravod()
        self.add_sessions("before")
        watch = subprocess.Popen([os.environ["RAVOCTL"], "watch", "--interval", "0.1"],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(watch.communicate)
        self.addCleanup(watch.kill)
        self.read_until(watch.stderr.fileno(), b"watching")
        self.ok("sessions", "add", "username=al\x1bice", "source_ip=203.0.113.1", "vpn_ip=10.8.0.2", "action=1")
        line = self.read_until(watch.stdout.fileno(), b"connected")
        self.assertRegex(line, rb"^\d\d:\d\d:\d\d al\\x1Bice connected, 203.0.113.1 as 10.8.0.2\n$")
        self.ok("outgoing", "add", "username=x", "uptime=5", "rx_total=7", "action=2")
        self.read_until(watch.stdout.fileno(), b" outgoing: x disconnected after 5 s, 7 B received, 0 B sent\n")
        for _ in range(3):
            self.ok("blocks", "fail", "mallory")
        self.read_until(watch.stdout.fileno(), b" mallory is blocked\n")
        self.ok("blocks", "lift", "mallory")
        self.read_until(watch.stdout.fileno(), b" mallory is not blocked any more\n")
        daemon.stop()
        self.read_until(watch.stdout.fileno(), b" is not reachable")
        self.start_ravod()
        self.read_until(watch.stdout.fileno(), b" ravod answers again\n")
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(TIMEOUT_SECONDS), 0)

    def test_watch_ends_when_its_lines_cannot_be_written(self):
        self.start_ravod()
        with open("/dev/full", "w", encoding="utf-8") as full:
            watch = subprocess.Popen([os.environ["RAVOCTL"], "watch", "--interval", "0.1"], stdout=full,
                                     stderr=subprocess.PIPE)
        self.addCleanup(watch.kill)
        self.read_until(watch.stderr.fileno(), b"watching")
        self.add_sessions("alice")
        _, complaint = watch.communicate(timeout=TIMEOUT_SECONDS)
        self.assertEqual((watch.returncode, complaint), (7, b"ravoctl: the output could not be written\n"))
        self.fails(self.ravoctl("watch", "--interval", "nan"), 2, "--interval")

    def test_watch_draws_a_terminal_anew(self):
        self.start_ravod()
        master, slave = pty.openpty()
        watch = subprocess.Popen([os.environ["RAVOCTL"], "watch", "--interval", "0.1"], stdin=slave,
                                 stdout=slave, stderr=subprocess.DEVNULL, start_new_session=True,
                                 preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(slave)
        self.addCleanup(os.close, master)
        self.addCleanup(watch.kill)
        self.read_until(master, b"\x1b[H\x1b[2J")
        self.ok("sessions", "add", "username=alice", "action=3")
        self.read_until(master, b"alice was lost")
        os.write(master, b"\x03")
        self.assertEqual(watch.wait(TIMEOUT_SECONDS), 0)

    # --- Completion ---

    def offered(self, *words):
        program = os.environ["RAVOCTL"]
        return self.succeed(self.run_program("bash", "-c", COMPLETE, "bash", program, program,
                                             *words)).split()

    def test_bash_is_offered_what_can_stand_at_the_cursor(self):
        os.makedirs("/tmp/here")
        for words, expected in (
            (["sess"], ["sessions"]), (["completion", ""], ["bash", "zsh", "fish"]),
            (["blocks", "l"], ["lift"]), (["sessions", "ad"], ["add"]), (["nix", "sess"], ["sessions"]),
            (["report", "--ht"], ["--html"]), (["report", "--html", "/tmp/he"], ["/tmp/here"]),
            (["report", "--html", "=", "/tmp/he"], ["/tmp/here"]), (["report", "-S", "comple"], []),
            (["call", "--endpoint", "sessions", "--ra"], ["--raw"]),
        ):
            with self.subTest(words=words):
                self.assertEqual(self.offered(*words), expected)
        self.assertIn("sessions", self.offered(""))

    def test_bash_completes_a_line_that_is_typed(self):
        os.symlink(os.environ["RAVOCTL"], "/tmp/ravoctl")
        master, slave = pty.openpty()
        shell = subprocess.Popen(["bash", "--norc", "--noprofile", "-i"], stdin=slave, stdout=slave,
                                 stderr=slave, start_new_session=True, env={"PATH": "/tmp:/usr/bin"})
        os.close(slave)
        try:
            os.write(master, b"source <(ravoctl completion bash)\nravoctl completi\tzs\t; exit\n")
            self.read_until(master, b"#compdef ravoctl")
        finally:
            shell.kill()
            shell.wait()
            os.close(master)


if __name__ == "__main__":
    unittest.main()
