"""ravo-openvpn as OpenVPN calls it: recorded calls, hostile names, a daemon that is away, and logins.

Calls are those of examples/data. What a hook leaves behind it becomes a child of the test, which
waits for its end."""
import json
import os
import subprocess
import unittest

from support.hooks import adopt_orphans, children, system_log
from support.ravod import TIMEOUT_SECONDS, RavodTest

HELPER = os.environ["RAVO_OPENVPN"]
SETTINGS = "/etc/ravo-openvpn.conf"
LIMITER_SETTINGS = "/etc/config/vpn_block.conf"
WAITING = "/var/spool/ravo-openvpn/waiting"
OPEN = "/var/spool/ravo-openvpn/open"
CONTROL = "/tmp/control"
REASON = "/tmp/reason"
SEEN = "/tmp/seen"
DEFERRED = 2

VERIFIER = """#!/bin/sh
printf '%s|%s|%s\\n' "$username" "$password" "$1" >>/tmp/seen
[ -z "$1" ] || { cat "$1" >>/tmp/seen; stat -c %a "$1" >>/tmp/seen; }
case $password in
    right) exit 0 ;;
    deferred) exit 2 ;;
    broken) exit 5 ;;
    *) exit 1 ;;
esac
"""

HOSTILE_NAMES = ("o'brien", 'a"b', "zoë", "$(touch /tmp/hurt)", "; touch /tmp/hurt", "`touch /tmp/hurt`",
                 "100%", "%s%n", "a\nb", "\x1b[2J", "x" * 3000, "ë" * 600, "../../etc/passwd", "-rf",
                 "a', 1, 2); DROP TABLE conn_server_log; --", "名前", "\udcff\udcfe")


def calls(*hooks):
    with open(os.environ["CALLS"], encoding="utf-8") as file:
        return [call for call in map(json.loads, file) if call["hook"] in hooks]


def text_of(path):
    try:
        with open(path, encoding="utf-8", errors="surrogateescape") as file:
            return file.read()
    except FileNotFoundError:
        return None


class openvpn_hooks(RavodTest):
    def setUp(self):
        super().setUp()
        adopt_orphans()
        self.log = system_log(self)

    def logged(self):
        lines = []
        try:
            while True:
                lines.append(self.log.recv(65536).decode(errors="surrogateescape"))
        except BlockingIOError:
            return "\n".join(lines)

    def hook(self, name, env, *arguments, finish=True):
        """Its exit status. With finish, what it has started has ended."""
        before = children()
        status = self.run_program(HELPER, name, *arguments, env=env).returncode
        if finish:
            for pid in children() - before:
                os.waitpid(pid, 0)
        return status

    def rows(self):
        result = self.ravoctl("sessions", "--rows", "--json", "-n", "all")
        return json.loads(self.succeed(result), strict=False)["rows"]

    def replay_calls(self):
        for call in calls("connect", "disconnect"):
            self.assertEqual(self.hook(call["hook"], call["env"], "/tmp/file"), 0)

    # --- Sessions --------------------------------------------------------------------------------

    def check_recorded_rows(self):
        rows = self.rows()
        self.assertEqual([row["action"] for row in rows], [1, 1, 1, 2, 2, 2, 1, 2, 1, 2])
        self.assertEqual(rows[3], {
            "id": 4, "username": "zoë", "vpn_type": 4, "uptime": 9, "time": 1795222867,
            "device_info": "linux 2.6.14 zo__-laptop", "source_ip": "203.0.113.13",
            "vpn_ip": "10.88.0.4", "tx_rate": 0, "rx_rate": 0, "tx_total": 27323,
            "rx_total": 27161, "outgoing": "tun0", "action": 2,
        })
        devices = json.loads(self.succeed(self.ravoctl("devices", "--json")))["rows"]
        self.assertEqual([device["mac"] for device in devices],
                         ["26:30:2d:70:37:d8", "0a:66:2b:43:08:46", "52:78:01:e2:97:00"])
        self.assertEqual(devices[2]["user_id"], "100%")
        self.assertEqual(os.listdir(OPEN), [])
        self.assertEqual(os.listdir(WAITING), [])

    def test_recorded_sessions_become_rows(self):
        self.start_ravod()
        self.replay_calls()
        self.check_recorded_rows()
        self.assertEqual(self.logged(), "")

    def test_sessions_wait_for_the_daemon(self):
        self.replay_calls()
        self.assertEqual(len(os.listdir(WAITING)), 10)
        self.assertIn("ravod does not take records", self.logged())
        self.assertEqual(self.run_program(HELPER, "replay").returncode, 1)
        self.start_ravod()
        self.assertEqual(self.run_program(HELPER, "replay").returncode, 0)
        self.check_recorded_rows()

    def test_next_event_brings_those_before_it(self):
        first, *others = calls("connect", "disconnect")
        self.hook(first["hook"], first["env"])
        self.start_ravod()
        for call in others:
            self.hook(call["hook"], call["env"])
        self.check_recorded_rows()

    def test_server_down_closes_its_open_sessions(self):
        self.start_ravod()
        call = calls("connect")[0]
        env = call["env"] | {"daemon_pid": str(os.getpid())}
        self.hook("connect", env)
        self.hook("server-up", {"daemon_pid": "1"}, "tun0", "1500", "0", "10.88.0.1", "255.255.255.0", "init")
        self.assertEqual([row["action"] for row in self.rows()], [1])
        self.hook("server-down", {"daemon_pid": str(os.getpid())}, "tun0")
        rows = self.rows()
        self.assertEqual([row["action"] for row in rows], [1, 3])
        self.assertEqual(rows[1]["time"] - rows[1]["uptime"], int(env["time_unix"]))

    def test_server_that_was_killed_loses_its_sessions(self):
        self.start_ravod()
        call = calls("connect")[0]
        with subprocess.Popen(["/bin/cat"], stdin=subprocess.PIPE) as server:
            self.hook("connect", call["env"] | {"daemon_pid": str(server.pid)})
            self.hook("server-up", {"daemon_pid": str(os.getpid())})
            self.assertEqual([row["action"] for row in self.rows()], [1])
            server.kill()
        self.hook("server-up", {"daemon_pid": str(os.getpid())})
        self.assertEqual([row["action"] for row in self.rows()], [1, 3])
        self.hook("server-up", {"daemon_pid": str(os.getpid())})
        self.assertEqual(len(self.rows()), 2)

    def test_hostile_names_are_recorded_as_they_are(self):
        self.start_ravod()
        env = calls("connect")[0]["env"]
        for name in HOSTILE_NAMES:
            self.hook("connect", env | {"username": name})
        expected = ["x" * 1024 if name[0] == "x" else "ë" * 512 if name[0] == "ë" else name
                    for name in HOSTILE_NAMES]
        # What is no UTF-8 is shown in some other way.
        self.assertEqual([row["username"] for row in self.rows()][:-1], expected[:-1])
        self.assertEqual(len(self.rows()), len(expected))
        self.assertFalse(os.path.exists("/tmp/hurt"))

    def test_nothing_is_needed_from_the_environment(self):
        self.start_ravod()
        for name in ("connect", "disconnect", "server-up", "server-down"):
            self.assertEqual(self.hook(name, {}), 0)
        self.assertEqual([row["action"] for row in self.rows()], [1, 2])

    def test_wrong_usage_is_never_a_login_that_is_put_off(self):
        for words in ((), ("nix",), ("Connect",)):
            self.fails(self.run_program(HELPER, *words), 1, "usage: ravo-openvpn")

    def test_hook_does_not_wait_for_a_daemon_that_hangs(self):
        """The hook has answered while the daemon, stopped, has not."""
        ravod = self.start_ravod()
        os.kill(ravod.pid, 19)
        before = children()
        env = calls("connect")[0]["env"]
        self.assertEqual(self.hook("connect", env, finish=False), 0)
        left = children() - before
        self.assertEqual(len(left), 1)
        self.assertEqual(os.waitpid(next(iter(left)), os.WNOHANG)[0], 0)  # it still waits
        os.kill(ravod.pid, 18)
        os.waitpid(next(iter(left)), 0)
        self.assertEqual([row["username"] for row in self.rows()], ["alice"])

    def test_child_keeps_nothing_of_the_server(self):
        ravod = self.start_ravod()
        os.kill(ravod.pid, 19)
        reading, writing = os.pipe()
        before = children()
        with subprocess.Popen([HELPER, "connect"], env=calls("connect")[0]["env"], pass_fds=[writing],
                              stdout=writing, stderr=writing) as process:
            self.assertEqual(process.wait(TIMEOUT_SECONDS), 0)
        os.close(writing)
        self.assertEqual(os.read(reading, 1), b"")  # the end: nobody has the other side
        os.close(reading)
        child = next(iter(children() - before))
        self.assertEqual(os.getsid(child), child)
        os.kill(ravod.pid, 18)
        os.waitpid(child, 0)

    # --- Logins ----------------------------------------------------------------------------------

    def configure(self, *lines, verifier=VERIFIER):
        with open("/tmp/verifier", "w", encoding="utf-8") as file:
            file.write(verifier)
        os.chmod("/tmp/verifier", 0o755)
        with open(SETTINGS, "w", encoding="utf-8") as file:
            file.write("\n".join(("verifier /tmp/verifier",) + lines))

    def set_limiter(self, **members):
        with open(LIMITER_SETTINGS, "w", encoding="utf-8") as file:
            json.dump({"global": {"enable": True, "limit": 3, "time": 5} | members}, file)

    def log_in(self, name, password, *extra, **variables):
        """The verdict ("1", "0", or nothing) and the reason."""
        for path in (CONTROL, REASON):
            with open(path, "w", encoding="utf-8"):
                pass
        env = {"auth_control_file": CONTROL, "auth_failed_reason_file": REASON} | variables
        if not extra:
            env |= {"username": name, "password": password}
        self.assertEqual(self.hook("auth", env, *extra), DEFERRED)
        return text_of(CONTROL), text_of(REASON)

    def failures(self):
        listed = self.ravoctl("blocks", "--json").stdout  # it may complain of missing settings
        return {row["username"]: row["limit_count"] for row in json.loads(listed)["rows"]}

    def test_verifier_decides_and_failures_are_counted(self):
        self.configure()
        self.set_limiter()
        self.start(os.environ["VPNCAAS"])
        self.start_ravod()
        self.assertEqual(self.log_in("alice", "right"), ("1", ""))
        self.assertEqual(self.log_in("alice", "wrong"), ("0", ""))
        self.assertEqual(self.failures(), {"alice": 1})
        self.assertEqual(self.log_in("alice", "broken"), ("0", ""))
        self.assertIn("has not judged", self.logged())
        self.assertEqual(self.log_in("alice", "deferred"), ("", ""))
        self.assertEqual(self.failures(), {"alice": 1})
        self.assertEqual(self.log_in("alice", "right"), ("1", ""))
        self.assertEqual(self.failures(), {})

    def test_blocked_user_is_told_why_and_for_how_long(self):
        self.configure()
        self.set_limiter()
        self.start(os.environ["VPNCAAS"])
        self.start_ravod()
        for _ in range(3):
            self.assertEqual(self.log_in("o'brien", "wrong"), ("0", ""))
        os.remove(SEEN)
        self.assertEqual(self.log_in("o'brien", "right"),
                         ("0", "Too many failed logins. Try again in 5 minutes."))
        self.assertIsNone(text_of(SEEN))
        self.assertEqual(self.failures(), {"o'brien": 3})
        self.set_limiter(time=1.5)
        self.assertRegex(self.log_in("o'brien", "right")[1], r"in (8\d|90) seconds\.$")
        self.set_limiter(time=1e300)
        self.assertRegex(self.log_in("o'brien", "right")[1], r"in a long time\.$")
        self.set_limiter(enable=False)
        self.assertEqual(self.log_in("o'brien", "right"), ("1", ""))

    def test_user_and_password_in_a_file(self):
        self.configure()
        self.start_ravod()
        with open("/tmp/credentials", "w", encoding="utf-8") as file:
            file.write("zoë\nleft it's\n")
        self.assertEqual(self.log_in(None, None, "/tmp/credentials"), ("0", ""))
        first, *rest = text_of(SEEN).splitlines()
        self.assertRegex(first, r"^\|\|/run/ravo-openvpn/login-\w{6}$")
        self.assertEqual(rest, ["zoë", "left it's", "600"])
        self.assertFalse(os.path.exists(first[2:]))
        self.assertEqual(self.failures(), {"zoë": 1})

    def test_limiter_is_not_asked_about_names_that_hurt_it(self):
        self.configure()
        self.start_ravod()
        for name in ("", "100%", "a\nb", "x" * 1025):
            self.assertEqual(self.log_in(name, "wrong"), ("0", ""))
            self.assertIn("the limiter is not asked", self.logged())
            self.assertEqual(self.log_in(name, "right"), ("1", ""))
        self.assertEqual(self.failures(), {})
        self.assertEqual(self.log_in("y" * 1024, "wrong"), ("0", ""))
        self.assertEqual(self.failures(), {"y" * 1024: 1})

    def test_open_or_closed_without_the_daemon(self):
        for line, verdict, word in (("without-limiter open", ("1", ""), "judged without it"),
                                    ("", ("1", ""), "judged without it"),
                                    ("without-limiter closed",
                                     ("0", "Logins cannot be judged now. Try again later."), "refused")):
            self.configure(line)
            self.assertEqual(self.log_in("alice", "right"), verdict)
            logged = self.logged()
            self.assertIn("THE LIMITER IS AWAY", logged)
            self.assertIn(word, logged)
            self.assertEqual(self.log_in("alice", "wrong")[0], "0")

    def test_without_the_limiters_settings_nobody_is_blocked(self):
        self.configure()
        self.set_limiter(limit=1)
        service = self.start(os.environ["VPNCAAS"])
        self.start_ravod()
        self.log_in("alice", "wrong")
        self.assertEqual(self.log_in("alice", "right")[0], "0")
        service.stop()
        self.assertEqual(self.log_in("alice", "right"), ("1", ""))

    def test_without_a_verifier_nobody_comes_in(self):
        self.start_ravod()
        self.assertEqual(self.log_in("alice", "right"), ("0", "Logins are not set up."))
        self.assertIn("names no verifier", self.logged())
        self.configure()
        os.remove("/tmp/verifier")
        self.assertEqual(self.log_in("alice", "right"), ("0", ""))
        self.assertEqual(self.failures(), {})

    def test_verifier_that_hangs_is_ended(self):
        self.configure("verifier-seconds 1", verifier="#!/bin/sh\nexec cat /tmp/pipe\n")
        os.mkfifo("/tmp/pipe")
        self.start_ravod()
        self.assertEqual(self.log_in("alice", "right"), ("0", ""))
        self.assertEqual(self.failures(), {})

    def test_guesses_at_the_same_time_are_counted_one_by_one(self):
        self.configure()
        self.set_limiter()
        self.start(os.environ["VPNCAAS"])
        self.start_ravod()
        before = children()
        for _ in range(12):
            self.hook("auth", {"auth_control_file": CONTROL, "username": "mallory", "password": "guess"},
                      finish=False)
        for pid in children() - before:
            os.waitpid(pid, 0)
        self.assertEqual(text_of(SEEN).count("mallory"), 3)
        self.assertEqual(self.failures(), {"mallory": 3})

    def test_server_that_cannot_put_off_waits_for_the_verdict(self):
        self.configure()
        self.start_ravod()
        for password, status in (("right", 0), ("wrong", 1), ("deferred", 1)):
            self.assertEqual(self.hook("auth", {"username": "alice", "password": password}), status)

    def test_unknown_settings_are_told(self):
        self.configure("nonsense")
        self.start_ravod()
        self.log_in("alice", "right")
        self.assertIn("/etc/ravo-openvpn.conf: not understood: nonsense", self.logged())


if __name__ == "__main__":
    unittest.main()
