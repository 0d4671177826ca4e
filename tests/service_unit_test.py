"""The systemd units: what systemd says of them, what their sandbox refuses, and the daemon in it."""
import json
import os
import re
import shutil
import signal
import stat
import unittest

from support.ravod import DATABASE, DATABASE_FOLDER, TIMEOUT_SECONDS, RavodTest
from support.service_unit import TOP

SERVICES = ("ravod", "vpncaas", "NetworkService")
HIGHEST_EXPOSURE = 1.5
LOG = "/var/log/network/RAVO.log"
LOCK = "/run/lock/ravo_log.lck"
SETTINGS = "/etc/config/vpn_block.conf"
NOTIFICATIONS = "/var/log/network/notifications.jsonl"
CONFIGURATION = "/etc/ravod.conf"
SBIN = os.environ["SBIN"]
RAVOD = SBIN + "/ravod"
PYTHON = ("/usr/bin/python3", "-B")
IN_SANDBOX = (*PYTHON, TOP + "/tests/support/in_sandbox.py")
AWAIT_TEXT = (*PYTHON, TOP + "/tools/await", "text")

# What a service has no use for, as a program tries it, and the error it gets. Outside of the sandbox
# each of them is done, or fails for another reason.
REFUSED = (
    ("open('/etc/config/vpn_block.conf', 'w')", "EROFS"),
    ("open('/usr/local/x', 'w')", "EROFS"),
    ("open('/run/x', 'w')", "EROFS"),
    ("open('/run/outside')", "ENOENT"),
    ("open('/tmp/outside')", "ENOENT"),
    ("os.chown('/tmp', 0, 0)", "EPERM"),
    ("os.setpriority(os.PRIO_PROCESS, 0, 1)", "EPERM"),
    ("os.sched_setaffinity(0, os.sched_getaffinity(0))", "EPERM"),
    ("socket.socket(socket.AF_INET)", "EPERM"),
    ("mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE | mmap.PROT_EXEC)", "EPERM"),
    ("call('chroot', 0)", "EPERM"),
    ("call('mount', 0, 0, 0, 0, 0)", "EPERM"),
    ("call('ptrace', PTRACE_ATTACH, 0, 0, 0)", "EPERM"),
    ("call('clock_settime', 0, 0)", "EPERM"),
    ("call('io_uring_setup', 0, 0)", "EPERM"),
    ("call('keyctl', 0, 0, 0)", "EPERM"),
    ("call('unshare', 0)", "EPERM"),
    ("call('clone', CLONE_NEWUSER | CLONE_FS, 0, 0, 0, 0)", "EPERM"),
    ("call('clone3', 0, 0)", "ENOSYS"),
)
ALLOWED = (
    "open('/etc/config/ravo/x', 'w')", "open('/var/log/network/x', 'w')",
    "open('/run/lock/ravo_log.lck', 'w')", "open('/var/tmp/x', 'w')",
    "open('/proc/sys/kernel/random/uuid')", "socket.socket(socket.AF_UNIX)",
    "mmap.mmap(-1, 4096)", "os.fork() or os._exit(0)", "call('close_range', 100, 200, 0)",
)
TRY = """
import ctypes, errno, mmap, os, socket, sys
PTRACE_ATTACH, CLONE_FS, CLONE_NEWUSER = 16, 0x200, 0x10000000
libc = ctypes.CDLL(None, use_errno=True)
seccomp = ctypes.CDLL("libseccomp.so.2")
def call(name, *arguments):
    if libc.syscall(seccomp.seccomp_syscall_resolve_name(name.encode()), *arguments) < 0:
        raise OSError(ctypes.get_errno(), name)
for attempt in sys.argv[1:]:
    try:
        exec(attempt)
        print("done", flush=True)
    except OSError as error:
        print(errno.errorcode[error.errno], flush=True)
"""

# Settings that take from the daemon what it cannot serve without.
TOO_STRICT = (
    "SystemCallFilter=~@network-io", "SystemCallFilter=~@file-system", "SystemCallFilter=~bind",
    "SystemCallFilter=~epoll_create1", "SystemCallFilter=~eventfd2", "SystemCallFilter=~mmap",
    "RestrictAddressFamilies=\nRestrictAddressFamilies=AF_NETLINK",
)


class service_unit(RavodTest):
    def setUp(self):
        super().setUp()
        shutil.copytree(SBIN, "/usr/local/sbin", dirs_exist_ok=True)

    def unit(self, service):
        return f"{os.environ['UNITS']}/{service}.service"

    def unit_with(self, lines):
        """The daemon's unit with further lines of settings."""
        with open(self.unit("ravod"), encoding="utf-8") as file:
            text = file.read()
        with open("/tmp/ravod.service", "w", encoding="utf-8") as file:
            file.write(text.replace("[Install]", lines + "\n[Install]"))
        return "/tmp/ravod.service"

    def check(self, *command, **options):
        result = self.run_program(*command, **options)
        self.assertEqual(result.returncode, 0, result.stdout.decode() + result.stderr.decode())
        return result.stdout.decode()

    def attempt(self, *attempts):
        return self.check(*IN_SANDBOX, self.unit("ravod"), *PYTHON, "-c", TRY, *attempts).split()

    def start_in(self, unit):
        return self.start(*IN_SANDBOX, unit, RAVOD)

    def appended(self, path, text, *command):
        """Runs a command and waits for the line in a file that it leads to."""
        self.check(*AWAIT_TEXT, path, text, *command)

    def fail_a_statement(self):
        """A second delete logs an error, and the connection is opened anew."""
        for row in (1, 2):
            self.succeed(self.ravoctl("call", "db_conn_server_log_del", "--hex",
                                      row.to_bytes(8, "little").hex()))

    def start_limiter(self, unit):
        """Everything that blocks a user after one failure; the daemon as this unit has it."""
        with open(SETTINGS, "w", encoding="utf-8") as file:
            json.dump({"global": {"enable": True, "limit": 1, "time": 5}}, file)
        self.start(os.environ["VPNCAAS"])
        self.start_in(unit)

    # --- What systemd says ---

    def test_exposure_is_low(self):
        for service in SERVICES:
            with self.subTest(service=service):
                table = self.check("systemd-analyze", "security", "--offline=true", "--no-pager",
                                   self.unit(service))
                exposure = re.search(r"Overall exposure level for \S+: ([\d.]+)", table)
                self.assertLessEqual(float(exposure[1]), HIGHEST_EXPOSURE, table)

    def test_units_are_well_formed(self):
        env = {**os.environ, "SYSTEMD_UNIT_PATH": os.environ["UNITS"] + ":"}
        for service in SERVICES:
            with self.subTest(service=service):
                result = self.run_program("systemd-analyze", "verify", "--man=no",
                                          self.unit(service), env=env)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))

    def test_units_of_the_delivery_are_well_formed(self):
        env = {**os.environ, "SYSTEMD_UNIT_PATH": os.environ["UNITS"] + ":"}
        for kind in ("path", "service"):
            result = self.run_program("systemd-analyze", "verify", "--man=no",
                                      f"{os.environ['UNITS']}/ravod-notify.{kind}", env=env)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))

    def test_mistake_in_a_unit_would_be_seen(self):
        result = self.run_program("systemd-analyze", "verify", "--man=no",
                                  self.unit_with("ProtectSytem=strict"))
        self.assertIn(b"ProtectSytem", result.stderr)

    def test_exposure_of_a_unit_without_its_sandbox_would_be_seen(self):
        result = self.run_program("systemd-analyze", "security", "--offline=true",
                                  f"--threshold={int(HIGHEST_EXPOSURE * 10)}",
                                  self.unit_with("CapabilityBoundingSet=~\nNoNewPrivileges=no"))
        self.assertEqual(result.returncode, 1, result.stdout)

    # --- Directories, files and the group ---

    def test_paths_are_made_with_their_modes(self):
        os.makedirs("/tmp/root/etc/config/ravo", mode=0o755)
        for _ in range(2):
            self.check("systemd-tmpfiles", "--root=/tmp/root", "--create",
                       TOP + "/packaging/tmpfiles.conf")
            for path, mode in (("/etc/config", 0o755), ("/etc/config/ravo", 0o700),
                               ("/var/log/network", 0o755), (LOCK, 0o600),
                               ("/var/spool/ravod-notify", 0o700),
                               ("/var/spool/ravod-notify/new", 0o700),
                               ("/etc/config/vpn_options.conf.lck", 0o644)):
                made = os.stat("/tmp/root" + path)
                self.assertEqual((stat.S_IMODE(made.st_mode), made.st_uid, made.st_gid), (mode, 0, 0))

    def test_modes_of_shared_folders_are_left_alone(self):
        os.makedirs("/tmp/root/var/log/network")
        os.chmod("/tmp/root/var/log/network", 0o750)
        self.check("systemd-tmpfiles", "--root=/tmp/root", "--create",
                   TOP + "/packaging/tmpfiles.conf")
        self.assertEqual(stat.S_IMODE(os.stat("/tmp/root/var/log/network").st_mode), 0o750)

    def test_group_is_made_and_empty(self):
        os.makedirs("/tmp/root/etc")
        self.check("systemd-sysusers", "--root=/tmp/root", TOP + "/packaging/sysusers.conf")
        with open("/tmp/root/etc/group", encoding="utf-8") as file:
            self.assertRegex(file.read(), r"(?m)^ravo:x:\d+:$")

    # --- What the sandbox refuses ---

    def test_what_no_service_needs_is_refused(self):
        for path in ("/run/outside", "/tmp/outside"):
            with open(path, "w", encoding="utf-8"):
                pass
        attempts = [attempt for attempt, _ in REFUSED]
        self.assertEqual(list(zip(attempts, self.attempt(*attempts), strict=True)), list(REFUSED))
        outside = self.check(*PYTHON, "-c", TRY, *attempts).split()
        self.assertFalse(set(zip(attempts, outside, strict=True)) & set(REFUSED))

    def test_what_services_need_is_allowed(self):
        self.assertEqual(self.attempt(*ALLOWED), ["done"] * len(ALLOWED))

    def test_daemon_has_no_capability_and_a_filter(self):
        with open(f"/proc/{self.start_in(self.unit('ravod')).pid}/status", encoding="utf-8") as file:
            status = dict(line.split(":\t") for line in file.read().splitlines() if ":\t" in line)
        for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
            self.assertEqual(int(status[name], 16), 0, name)
        self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), ("1", "2"))

    def test_daemon_does_not_serve_without_what_it_needs(self):
        self.assertEqual(self.start_in(self.unit_with("")).stop(), 0)
        for lines in TOO_STRICT:
            with self.subTest(lines=lines), self.assertRaisesRegex(AssertionError, "does not serve"):
                self.start_in(self.unit_with(lines))

    # --- The daemon in its sandbox ---

    def test_files_are_closed_to_others(self):
        self.start_in(self.unit("ravod"))
        self.fail_a_statement()
        for path, mode in ((DATABASE_FOLDER, 0o700), (DATABASE, 0o600), (LOG, 0o600), (LOCK, 0o600)):
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), mode, path)

    def test_connection_opened_anew_takes_records(self):
        self.start_in(self.unit("ravod"))
        self.fail_a_statement()
        self.succeed(self.ravoctl("sessions", "add", "username=bob"))
        self.assertIn("bob", self.succeed(self.ravoctl("sessions")))

    def test_log_goes_on_without_its_lock_file(self):
        self.start_in(self.unit("ravod"))
        os.unlink(LOCK)
        self.fail_a_statement()
        with open(LOG, encoding="utf-8") as file:
            self.assertIn("RET = 1\n", file.read())

    def test_notifier_is_started_with_and_without_close_range(self):
        for lines in ("", "SystemCallFilter=~close_range"):
            with self.subTest(lines=lines):
                self.start_limiter(self.unit_with(lines))
                self.appended(NOTIFICATIONS, "Username: eve has been blocked", os.environ["RAVOCTL"],
                              "blocks", "fail", "eve")
                self.doCleanups()
                os.unlink(DATABASE)

    def test_notifier_that_may_not_be_started_is_missing(self):
        self.start_limiter(self.unit_with("SystemCallFilter=~clone fork vfork"))
        self.succeed(self.ravoctl("blocks", "fail", "eve"))
        self.assertEqual(self.ravoctl("blocks", "check", "eve").returncode, 1)
        self.assertFalse(os.path.exists(NOTIFICATIONS))

    def test_notifier_leaves_in_the_sandbox_what_is_delivered_outside(self):
        os.makedirs("/etc/ravod", exist_ok=True)
        with open("/etc/ravod/notify.conf", "w", encoding="utf-8") as file:
            file.write("mail-to root\n")
        self.check(*IN_SANDBOX, self.unit("ravod"), os.environ["NOTIFY"], "send", "-A", "A238", "-C",
                   "C001", "-M", "0020", "-l", "warn", "-t", "3", "text")
        self.assertEqual(len(os.listdir("/var/spool/ravod-notify/new")), 1)

    def test_signals_reach_the_daemon(self):
        with open(CONFIGURATION, "w", encoding="utf-8") as file:
            file.write("7\n")
        daemon = self.start(*IN_SANDBOX, self.unit("ravod"), RAVOD, "-c", CONFIGURATION)
        self.appended(LOG, "Reloaded configuration file", "/bin/kill", "-HUP", str(daemon.pid))
        os.kill(daemon.pid, signal.SIGTERM)
        self.assertEqual(daemon.process.wait(TIMEOUT_SECONDS), 0)


if __name__ == "__main__":
    unittest.main()
