"""ravoctl gateway: the gateway setting of the options file."""
import ctypes
import fcntl
import json
import os
import shutil
import signal
import stat
import subprocess
import unittest

from support.ravod import RavodTest

OPTIONS = "/etc/config/vpn_options.conf"
COPY = OPTIONS + ".ravoctl"
PROFILES = "/etc/config/vpn_profiles.conf"
NOTIFICATIONS = "/var/log/network/notifications.jsonl"
IN_MODIFY = 2  # of inotify; emptying counts
IN_CLOSE_WRITE = 8
NOTIFIER = "/usr/local/sbin/notify"
AWAIT = os.path.join(os.path.dirname(__file__), "..", "tools", "await")
NOT_READ = ("ravoctl: the network service has not read the setting: it does not answer or refuses; "
            "see its messages\n")
TAKEN_BACK = "ravoctl: an interrupted change was taken back\n"
NO_SERVICE = "default route: not known: the network service does not tell"
NO_GATEWAY = "gateway:       no VPN connection"
GLOBAL = {"version": "1"}
NONE = {"as_gw_en": 0}


def one(type_code, index, sname):
    return {"type": type_code, "index": index, "sname": sname}


def state_of(pid):
    """One letter, as proc(5) has it: T is stopped."""
    with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
        return file.read().rsplit(")", 1)[1].split()[0]


OPENVPN_1 = one(1024, 1, "OPENVPN_CLIENT1")
L2TP_2 = one(512, 2, "L2TP_CLIENT2")
ALONE = {"as_gw_en": 1, "gw1": OPENVPN_1, "failover_en": 0}
BACKED_UP = {"as_gw_en": 1, "gw1": OPENVPN_1, "failover_en": 1, "gw2": L2TP_2,
             "failover_interval": 5}

# What is given, and what it is in the file.
CONNECTIONS = (
    ("pptp", 0, one(256, 0, "PPTP_CLIENT0")), ("pptp", 249, one(256, 249, "PPTP_CLIENT249")),
    ("l2tp", 0, one(512, 0, "L2TP_CLIENT0")), ("L2TP/IPSec", 749, one(512, 749, "L2TP_CLIENT749")),
    ("openvpn", 0, one(1024, 0, "OPENVPN_CLIENT0")),
    ("OpenVPN", 499, one(1024, 499, "OPENVPN_CLIENT499")),
    ("tessel", 0, one(4096, 0, "TESSEL_CLIENT0")),
    ("TESSEL", 2499, one(4096, 2499, "TESSEL_CLIENT2499")),
)
DELAYS = (("never", -1), ("NEVER", -1), ("0", 0), ("1", 1), ("5", 5), ("10", 10))

# Arguments of "set", and words of the refusal.
REFUSED = (
    ([], "gateway", "required"), (["nix", "1"], "nix", "pptp (0 to 249), l2tp (0 to 749)"),
    (["openvpn_server", "1"], "openvpn_server", "openvpn (0 to 499), tessel (0 to 2499)"),
    (["1024", "1"], "1024", "client"), (["", "1"], '""', "client"), (["none", "1"], "none", "client"),
    (["openvpn"], "TYPE INDEX"), (["openvpn", "1", "2"], "2"),
    (["openvpn", "-1"], "-1", "0 to 499"), (["openvpn", "500"], "500", "0 to 499"),
    (["pptp", "250"], "0 to 249"), (["l2tp", "750"], "0 to 749"), (["tessel", "2500"], "0 to 2499"),
    (["openvpn", "one"], "one", "0 to 499"), (["openvpn", "1x"], "1x"), (["openvpn", " 1"], "\" 1\""),
    (["openvpn", ""], '""'), (["openvpn", "+1"], "+1"), (["openvpn", "1.0"], "1.0"),
    (["openvpn", "4294967297"], "4294967297"), (["openvpn", "9" * 400], "0 to 499"),
    (["openvpn", "1", "--backup"], "--backup"), (["openvpn", "1", "--backup", "l2tp"], "--backup"),
    (["openvpn", "1", "--backup", "nix", "1"], "nix"), (["none", "--backup", "none"], "--backup"),
    (["openvpn", "1", "--backup", "l2tp", "750"], "750", "0 to 749"),
    (["openvpn", "1", "--backup", "l2tp", "-2"], "-2", "0 to 749"),
    (["openvpn", "1", "--backup", "OPENVPN", "1"], "own backup"),
    (["openvpn", "1", "--backup", "l2tp", "2", "--backup", "pptp", "3"], "--backup"),
    (["none", "--backup", "l2tp", "2"], "without a gateway"),
    (["openvpn", "1", "--delay", "5"], "--delay", "without --backup"),
    (["none", "--delay", "5"], "--delay", "without --backup"),
    (["openvpn", "1", "--backup", "l2tp", "2", "--delay", "3"], "3", "never, 0, 1, 5, 10"),
    (["openvpn", "1", "--backup", "l2tp", "2", "--delay", "-1"], "-1", "never, 0, 1, 5, 10"),
    (["openvpn", "1", "--backup", "l2tp", "2", "--delay", ""], "never, 0, 1, 5, 10"),
    (["openvpn", "1", "--nix"], "--nix"),
)

# Contents that are no JSON object, and words of what is said of them.
DAMAGED = (
    (b" ", "line 1"), (b"[]", "it holds no JSON object"), (b"5", "line 1"), (b"{", "line 1"),
    (b"{}\n\n x", "line 3"), (b'{"gw_setting": {"as_gw_en": 1,', "line 1"), (b"\0" * 20, "line 1"),
    (b'{"\x1b[31m": \x1b[31m', "line 1"), (b'{"a": "\xff"}', "line 1"), (b"\xc2\x9b31m", "line 1"),
    (b"[" * 100000, "line 1"),
)

# Options in which nothing stands: none, or contents.
NOTHING = (None, b"", b"{}", b'{"gw_setting": {"as_gw_en": 1,', b"[1]")
DAMAGED_NOTHING = NOTHING[3:]


class ravoctl_gateway(RavodTest):
    def gateway(self, *arguments, **options):
        return self.ravoctl("gateway", *arguments, **options)

    def put(self, document):
        """Writes the file: bytes, or a document."""
        if isinstance(document, dict):
            document = json.dumps(document).encode()
        with open(OPTIONS, "wb") as file:
            file.write(document)

    def put_setting(self, setting):
        self.put({"global": GLOBAL, "gw_setting": setting})

    def content(self):
        with open(OPTIONS, "rb") as file:
            return file.read()

    def document(self):
        return json.loads(self.content())

    def change(self, *arguments):
        """The lines of a change that was made, though there is no network service to read it."""
        return self.change_saying(NOT_READ, *arguments)

    def change_saying(self, errors, *arguments):
        result = self.gateway(*arguments)
        self.assertEqual((result.returncode, result.stderr.decode()), (0, errors))
        self.assertFalse(os.path.exists(COPY))
        return result.stdout.decode().splitlines()

    def lines(self, *arguments):
        return self.succeed(self.gateway(*arguments)).splitlines()

    def json(self, *arguments):
        return json.loads(self.succeed(self.gateway(*arguments, "--json")))

    def fails_and_keeps(self, status, arguments, *words):
        """It failed so, and the file is as it was."""
        before = self.content() if os.path.isfile(OPTIONS) else None
        result = self.gateway(*arguments)
        self.fails(result, status, *words)
        self.assertNotRegex(result.stderr, rb"[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]")
        self.assertEqual(self.content() if os.path.isfile(OPTIONS) else None, before)
        self.assertFalse(os.path.exists(COPY))

    def start_network(self, **profiles):
        """The network service, which knows these profiles by short names."""
        with open(PROFILES, "w", encoding="utf-8") as file:
            json.dump({sname: {"profile": profile} for sname, profile in profiles.items()}, file)
        self.network = self.start(os.environ["NETWORK_SERVICE"])

    def stop_network(self):
        """Lets the network service wait, at a moment when it does not hold the options' lock."""
        with open(OPTIONS + ".lck", "ab") as lock:
            while True:
                os.kill(self.network.pid, signal.SIGSTOP)
                while state_of(self.network.pid) != "T":
                    os.sched_yield()
                try:
                    fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    return
                except BlockingIOError:
                    os.kill(self.network.pid, signal.SIGCONT)

    def interfere(self, event, interference, *arguments):
        """Runs a change, and interferes when this has happened to the file.

        The network service is made to wait: the store asks it for the gateway's profile while the
        file stands empty, and tells it of the change when the file is written.
        """
        libc = ctypes.CDLL(None)
        watch = libc.inotify_init1(os.O_CLOEXEC)
        self.addCleanup(os.close, watch)
        self.assertGreater(libc.inotify_add_watch(watch, OPTIONS.encode(), event), 0)
        self.stop_network()
        with subprocess.Popen([os.environ["RAVOCTL"], "gateway", *arguments],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE) as tool:
            os.read(watch, 4096)
            interference(tool)
            os.kill(self.network.pid, signal.SIGCONT)
            output, errors = tool.communicate()
        return subprocess.CompletedProcess(arguments, tool.returncode, output, errors)

    def interfere_when_written(self, interference, *arguments):
        """The change must leave no gateway, so that nothing waits before the file is written."""
        return self.interfere(IN_CLOSE_WRITE, lambda tool: interference(), *arguments)

    def interrupt(self, sig, *arguments):
        """Sends a signal while the file stands empty, and returns how the tool ended."""
        def send(tool):
            self.assertEqual(self.content(), b"")
            tool.send_signal(sig)
        return self.interfere(IN_MODIFY, send, *arguments)

    def ip(self, *words):
        self.assertEqual(self.succeed(self.run_program("/usr/sbin/ip", *words)), "")

    # --- Showing ---

    def test_without_a_file_no_vpn_connection_is_the_gateway(self):
        for arguments in ([], ["show"]):
            self.assertEqual(self.lines(*arguments), [NO_GATEWAY, NO_SERVICE])
            self.assertEqual(self.json(*arguments), {
                "schema": "ravoctl.gateway/1", "options_file": "missing", "gateway": None, "backup": None, "delay": None,
                "default_route_is_known": False, "default_route": None})
        self.assertEqual([name for name in os.listdir("/etc/config") if "options" in name], [])

    def test_shows_a_setting_as_the_store_reads_it(self):
        big = 1e30
        for setting, *expected in (
            (None, NO_GATEWAY), (5, NO_GATEWAY), ([], NO_GATEWAY), ({}, NO_GATEWAY), (NONE, NO_GATEWAY),
            ({"as_gw_en": 0.9, "gw1": OPENVPN_1}, NO_GATEWAY), ({"as_gw_en": True}, NO_GATEWAY),
            ({"as_gw_en": "1"}, NO_GATEWAY), (NONE | {"failover_en": 1, "gw2": L2TP_2}, NO_GATEWAY),
            (ALONE, "gateway:       OpenVPN 1", "backup:        none"),
            (BACKED_UP, "gateway:       OpenVPN 1", "backup:        L2TP/IPSec 2", "delay:         5"),
            (BACKED_UP | {"failover_interval": -1}, "gateway:       OpenVPN 1",
             "backup:        L2TP/IPSec 2", "delay:         never"),
            (BACKED_UP | {"failover_interval": 3}, "gateway:       OpenVPN 1",
             "backup:        L2TP/IPSec 2", "delay:         3, which is no known delay"),
            ({"as_gw_en": -1.5}, "gateway:       unknown type 0, index 0", "backup:        none"),
            ({"as_gw_en": big, "gw1": one(big, -big, 5)},
             "gateway:       unknown type 65535, index -2147483648", "backup:        none"),
            ({"as_gw_en": 1, "gw1": one(256.9, 7.9, None)}, "gateway:       PPTP 7", "backup:        none"),
            ({"as_gw_en": 1, "gw1": one(1, 0, "PPTP_SERVER0")},
             "gateway:       unknown type 1, index 0", "backup:        none"),
            ({"as_gw_en": 1, "gw1": [], "failover_en": 1, "gw2": 5},
             "gateway:       unknown type 0, index 0", "backup:        unknown type 0, index 0",
             "delay:         0, at once"),
        ):
            with self.subTest(setting=setting):
                self.put_setting(setting)
                self.assertEqual(self.lines(), [*expected, NO_SERVICE])

    def test_shows_everything_as_json(self):
        self.put_setting(BACKED_UP)
        self.assertEqual(self.json(), {
            "schema": "ravoctl.gateway/1", "options_file": "present", "delay": 5,
            "default_route_is_known": False, "default_route": None,
            "gateway": {"type": "OpenVPN", "type_code": 1024, "index": 1, "sname": "OPENVPN_CLIENT1",
                        "profile": None},
            "backup": {"type": "L2TP/IPSec", "type_code": 512, "index": 2, "sname": "L2TP_CLIENT2",
                       "profile": None}})
        self.put_setting(ALONE | {"gw1": one(7, 1, "\x1b[31m\x7f\u009b\u202ezoë")})
        result = self.gateway("--json")
        self.assertNotRegex(result.stdout, rb"[\x00-\x09\x0b-\x1f\x7f-\xff]")
        self.assertEqual(json.loads(result.stdout)["gateway"], {
            "type": "", "type_code": 7, "index": 1, "sname": "\x1b[31m\x7f\u009b\u202ezoë",
            "profile": None})

    def test_damaged_file_is_named_and_not_taken_for_a_setting(self):
        for content, words in DAMAGED:
            with self.subTest(content=content[:30]):
                self.put(content)
                result = self.gateway()
                self.assertEqual((result.returncode, result.stdout.decode().splitlines()), (
                    7, ["gateway:       not known: the options file is damaged", NO_SERVICE]))
                self.assertIn(f"{OPTIONS} is damaged: {words}", result.stderr.decode("ascii"))
                self.assertNotRegex(result.stderr, rb"[\x00-\x09\x0b-\x1f\x7f]")
                result = self.gateway("show", "--json")
                self.assertEqual(result.returncode, 7)
                self.assertEqual(json.loads(result.stdout)["options_file"], "damaged")
                self.assertIsNone(json.loads(result.stdout)["gateway"])

    def test_what_cannot_be_read_is_named_and_nothing_waits_for_it(self):
        for make, status, words in (
                (lambda: os.mkdir(OPTIONS), 7, "no regular file"),
                (lambda: os.mkfifo(OPTIONS), 7, "no regular file"),
                (lambda: os.symlink("/dev/zero", OPTIONS), 7, "no regular file"),
                (lambda: os.close(os.open(OPTIONS, os.O_CREAT, 0)), 4, "Permission denied")):
            make()
            for arguments in ([], ["--json"], ["set", "none"], ["set", "none", "--reset"],
                              ["drop", "openvpn", "1"]):
                with self.subTest(words=words, arguments=arguments):
                    self.fails(self.gateway(*arguments), status, OPTIONS, words)
            (os.rmdir if os.path.isdir(OPTIONS) else os.unlink)(OPTIONS)

    # --- The network service and the notifier ---

    def test_profiles_are_named_as_the_network_service_knows_them(self):
        self.start_network(OPENVPN_CLIENT1="Office \x1b[31m\u009b\u202e\n\\", L2TP_CLIENT2="zoë's")
        self.put_setting(BACKED_UP)
        self.assertEqual(self.lines(), [
            r'gateway:       OpenVPN 1, profile "Office \x1B[31m\xC2\x9B\xE2\x80\xAE\n\\"',
            'backup:        L2TP/IPSec 2, profile "zoë\'s"', "delay:         5",
            "default route: no VPN connection"])
        shown = self.json()
        self.assertEqual((shown["gateway"]["profile"], shown["backup"]["profile"]),
                         ("Office \x1b[31m\u009b\u202e\n\\", "zoë's"))
        self.put_setting(BACKED_UP | {"gw1": one(1024, 1, None), "gw2": one(1024, 1, "PPTP_CLIENT5")})
        self.assertEqual(self.lines()[:2], ["gateway:       OpenVPN 1", "backup:        OpenVPN 1"])

    def test_default_route_is_the_kernels(self):
        self.start_network()
        for interface, shown, as_json in (
            ("tun2001", "OpenVPN 1", {"type": "OpenVPN", "type_code": 1024, "index": 1}),
            ("ppp1252", "L2TP/IPSec 2", {"type": "L2TP/IPSec", "type_code": 512, "index": 2}),
            ("mirec2500", "Tessel 0", {"type": "Tessel", "type_code": 4096, "index": 0}),
            ("tun0", "no VPN connection", None), ("eth7", "no VPN connection", None),
        ):
            with self.subTest(interface=interface):
                self.ip("link", "add", interface, "type", "veth", "peer", "name", "peer")
                self.ip("link", "set", interface, "up")
                self.ip("link", "set", "peer", "up")
                self.ip("route", "add", "default", "dev", interface)
                self.assertEqual(self.lines(), [NO_GATEWAY, "default route: " + shown])
                route = self.json()
                self.assertEqual((route["default_route_is_known"], route["default_route"]),
                                 (True, as_json))
                self.ip("link", "delete", interface)

    def test_service_that_does_not_read_the_setting_is_told(self):
        self.start(os.environ["ECHO_ENDPOINT"], "NetworkService")  # answers, but never with "error": 0
        self.put_setting(NONE)
        self.assertEqual(self.lines()[-1], NO_SERVICE)
        self.assertEqual(self.change("set", "openvpn", "1"),
                         ["gateway:       OpenVPN 1", "backup:        none"])
        self.assertEqual(self.document()["gw_setting"], ALONE)
        self.change("drop", "openvpn", "1")

    def test_changes_reach_the_network_service_and_the_administrator(self):
        os.makedirs(os.path.dirname(NOTIFIER), exist_ok=True)
        shutil.copy(os.environ["NOTIFY"], NOTIFIER)
        self.start_network(OPENVPN_CLIENT1="Office", L2TP_CLIENT2="Home")
        texts = ('NAS default gateway to the OpenVPN profile: \\"Office\\"',
                 'backup NAS default gateway to the L2TP/IPSec profile: \\"Home\\"',
                 'NAS default gateway reversion to \\"Not\\"')
        awaits = [word for text in texts for word in (AWAIT, "text", NOTIFICATIONS, text)]
        tool = [os.environ["RAVOCTL"], "gateway"]
        told = self.succeed(self.run_program(*awaits, *tool, "set", "openvpn", "1", "--backup", "l2tp",
                                             "2", "--delay", "never"))
        self.assertEqual(told.splitlines(), [
            'gateway:       OpenVPN 1, profile "Office"', 'backup:        L2TP/IPSec 2, profile "Home"',
            "delay:         never"])
        text = 'NAS default gateway to the L2TP/IPSec profile: \\"Home\\"'
        told = self.succeed(self.run_program(AWAIT, "text", NOTIFICATIONS, text, *tool, "drop",
                                             "openvpn", "1"))
        self.assertEqual(told, "OpenVPN 1 was the gateway: its backup L2TP/IPSec 2 takes over\n")

    # --- Setting ---

    def test_every_connection_is_stored_whole_and_shown_again(self):
        for word, index, expected in CONNECTIONS:
            for backup, backup_index, expected_backup in CONNECTIONS[::3]:
                if expected == expected_backup:
                    continue
                with self.subTest(gateway=(word, index), backup=(backup, backup_index)):
                    shown = self.change("set", word, str(index), "--backup", backup, str(backup_index))
                    self.assertEqual(self.document(), {"global": GLOBAL, "gw_setting": {
                        "as_gw_en": 1, "gw1": expected, "failover_en": 1, "gw2": expected_backup,
                        "failover_interval": 0}})
                    self.assertEqual(self.lines(), [*shown, NO_SERVICE])
                    self.assertRegex(shown[0], rf"(?i)^gateway:       {word[:4]}.* {index}$")
                    self.assertRegex(shown[1], rf"(?i)^backup:        {backup[:4]}.* {backup_index}$")
                    self.assertEqual(shown[2], "delay:         0, at once")

    def test_every_delay_is_stored_as_its_code(self):
        for word, code in DELAYS:
            with self.subTest(delay=word):
                shown = self.change("set", "openvpn", "1", "--backup", "l2tp", "2", "--delay", word)
                self.assertEqual(self.document()["gw_setting"], BACKED_UP | {"failover_interval": code})
                self.assertTrue(shown[2].startswith(f"delay:         {word.lower()}"), shown)

    def test_new_setting_leaves_nothing_of_the_old_one(self):
        self.change("set", "openvpn", "1", "--backup", "l2tp", "2")
        self.assertEqual(self.change("set", "openvpn", "1"),
                         ["gateway:       OpenVPN 1", "backup:        none"])
        self.assertEqual(self.document()["gw_setting"], ALONE)
        for word in ("none", "None"):
            self.assertEqual(self.change("set", word), [NO_GATEWAY])
            self.assertEqual(self.document(), {"global": GLOBAL, "gw_setting": NONE})

    def test_everything_that_the_store_would_take_blindly_is_refused(self):
        for document in (None, {"gw_setting": BACKED_UP}):
            if document:
                self.put(document)
            for arguments, *words in REFUSED:
                with self.subTest(arguments=arguments):
                    self.fails_and_keeps(2, ["set", *arguments], *words)
        self.fails_and_keeps(2, ["set", b"\x1b[31m\xc2\x9b", "1"], r"\x1B[31m\xC2\x9B")
        self.fails_and_keeps(2, ["set", "pptp", b"\x1b[31m\xff"], r"\x1B[31m\xFF")

    def test_sections_that_are_missing_are_made_and_others_stay(self):
        hostile = {"a\n": [1, {"\x1b": None}], "zoë": 2.5}
        for document, expected in (
            ({}, {"global": GLOBAL}), ({"global": 7}, {"global": 7}),
            ({"global": {"version": "9", "more": True}}, {"global": {"version": "9", "more": True}}),
            ({"gw_setting": 5, "x": hostile}, {"global": GLOBAL, "x": hostile}),
            ({"gw_setting": {"as_gw_en": 0, "odd": 1}}, {"global": GLOBAL}),
        ):
            with self.subTest(document=document):
                self.put(document)
                self.change("set", "openvpn", "1")
                self.assertEqual(self.document(), expected | {"gw_setting": ALONE})

    def test_empty_file_stands_for_the_template(self):
        self.put(b"")
        self.assertEqual(self.lines(), [NO_GATEWAY, NO_SERVICE])
        shown = self.json()
        self.assertEqual((shown["options_file"], shown["gateway"]), ("present", None))
        self.assertEqual(self.succeed(self.gateway("drop", "pptp", "1")),
                         "PPTP 1 is neither the gateway nor its backup: nothing changed\n")
        self.assertEqual(self.content(), b"")
        self.change("set", "openvpn", "1")
        self.assertEqual(self.document(), {"global": GLOBAL, "gw_setting": ALONE})

    def test_damaged_file_is_changed_only_when_it_may_be_begun_anew(self):
        for content, words in DAMAGED:
            with self.subTest(content=content[:30]):
                self.put(content)
                self.fails_and_keeps(7, ["set", "openvpn", "1"], "is damaged", words, "--reset")
                self.fails_and_keeps(7, ["drop", "openvpn", "1"], "is damaged", words)
                self.change("set", "openvpn", "1", "--reset")
                self.assertEqual(self.document(), {"global": GLOBAL, "gw_setting": ALONE})
        self.put({"x": 1, "gw_setting": NONE})
        self.change("set", "openvpn", "1", "--reset")
        self.assertEqual(self.document(), {"x": 1, "global": GLOBAL, "gw_setting": ALONE})

    # --- Dropping ---

    def test_drop_tells_what_came_of_it(self):
        for before, connection, after, told in (
            (BACKED_UP, "openvpn 1", {"as_gw_en": 1, "gw1": L2TP_2, "failover_en": 0},
             "OpenVPN 1 was the gateway: its backup L2TP/IPSec 2 takes over"),
            (BACKED_UP, "l2tp 2", ALONE, "L2TP/IPSec 2 was the backup: there is no backup any more"),
            (ALONE, "OPENVPN 1", NONE | {"failover_en": 0},
             "OpenVPN 1 was the gateway: there is no gateway any more"),
            ({"as_gw_en": 1, "gw1": OPENVPN_1}, "openvpn 1", NONE,
             "OpenVPN 1 was the gateway: there is no gateway any more"),
        ):
            with self.subTest(before=before, connection=connection):
                self.put({"x": [1], "gw_setting": before})
                self.assertEqual(self.change("drop", *connection.split()), [told])
                self.assertEqual(self.document(), {"x": [1], "gw_setting": after})

    def test_drop_of_another_connection_changes_nothing(self):
        told = "{} is neither the gateway nor its backup: nothing changed\n"
        for setting, connection, name in (
            (BACKED_UP, "openvpn 2", "OpenVPN 2"), (BACKED_UP, "tessel 1", "Tessel 1"),
            (ALONE | {"gw2": L2TP_2}, "l2tp 2", "L2TP/IPSec 2"), (NONE, "openvpn 1", "OpenVPN 1"),
            (BACKED_UP | {"as_gw_en": 0}, "openvpn 1", "OpenVPN 1"), (5, "pptp 0", "PPTP 0"),
        ):
            with self.subTest(setting=setting, connection=connection):
                self.put_setting(setting)
                before = self.content()
                self.assertEqual(self.succeed(self.gateway("drop", *connection.split())),
                                 told.format(name))
                self.assertEqual(self.content(), before)
        os.unlink(OPTIONS)
        self.assertEqual(self.succeed(self.gateway("drop", "pptp", "1")), told.format("PPTP 1"))
        self.assertFalse(os.path.exists(OPTIONS))

    def test_drop_refuses_what_is_no_connection(self):
        self.put_setting(BACKED_UP)
        for arguments, *words in (([], "required"), (["none"], "connection"), (["openvpn"], "connection"),
                                  (["nix", "1"], "nix"), (["openvpn", "-1"], "-1", "0 to 499"),
                                  (["openvpn", "500"], "500"), (["openvpn", "1", "2"], "2")):
            with self.subTest(arguments=arguments):
                self.fails_and_keeps(2, ["drop", *arguments], *words)

    # --- Files that resist ---

    def fill_small(self, pages_free, content):
        """Puts the file on a disk on which that many pages are free."""
        os.symlink("/small/options", OPTIONS)
        self.put(content)
        with open("/small/filler", "wb", buffering=0) as filler:
            disk = os.statvfs("/small")
            left = disk.f_bavail - pages_free
            self.assertEqual(filler.write(b"x" * left * disk.f_bsize), left * disk.f_bsize)
        self.assertEqual(os.statvfs("/small").f_bavail, pages_free)
        self.addCleanup(os.unlink, "/small/filler")

    def test_full_disk_stops_a_change_before_it_begins(self):
        self.fill_small(0, json.dumps({"x": "y" * 9000, "gw_setting": BACKED_UP}).encode())
        for arguments in (["set", "none"], ["drop", "openvpn", "1"]):
            self.fails_and_keeps(7, arguments, "No space left", "nothing was changed")
        self.put(b"{}")
        os.truncate("/small/filler", os.path.getsize("/small/filler"))
        self.assertEqual(self.lines(), [NO_GATEWAY, NO_SERVICE])

    def test_full_disk_that_missing_sections_do_not_fit_on_keeps_the_file(self):
        page = os.statvfs("/small").f_bsize
        self.fill_small(1, json.dumps({"x": "y" * (page - 12)}).encode())
        self.assertLessEqual(len(self.content()), page)
        self.fails_and_keeps(7, ["set", "none"], "/small/options.ravoctl", "No space left")

    def test_document_that_the_disk_has_no_room_for_is_taken_back(self):
        page = os.statvfs("/small").f_bsize
        document = {"global": GLOBAL, "gw_setting": NONE}
        room = page - len(json.dumps(document | {"x": ""}))
        self.fill_small(1, json.dumps(document | {"x": "y" * room}).encode())
        self.assertEqual(len(self.content()), page)
        self.fails_and_keeps(5, ["set", "openvpn", "1"], "could not be changed", "stands there again",
                             NOT_READ)
        self.assertTrue(os.path.islink(OPTIONS))
        self.change("set", "none")

    def test_change_that_is_not_in_the_file_afterwards_has_its_own_status(self):
        self.put_setting(BACKED_UP)
        os.chmod(OPTIONS, 0o444)
        for arguments in (["set", "none"], ["drop", "openvpn", "1"], ["drop", "l2tp", "2"]):
            self.fails_and_keeps(5, arguments, OPTIONS, "does not hold what was asked")

    def test_change_that_another_program_has_overwritten_is_told(self):
        self.start_network()
        theirs = {"global": GLOBAL, "gw_setting": BACKED_UP | {"gw1": L2TP_2}}
        for arguments in (["set", "none"], ["drop", "openvpn", "1"]):
            self.put_setting(ALONE)
            result = self.interfere_when_written(lambda: self.put(theirs), *arguments)
            self.fails(result, 5, OPTIONS, "does not hold what was asked", "another program")
            self.assertEqual(self.document(), theirs)

    def test_file_that_is_gone_after_a_change_comes_back_as_it_was(self):
        self.start_network()
        for interference in (lambda: os.unlink(OPTIONS), lambda: self.put(b"[]"),
                             lambda: self.put(b"{}"), lambda: self.put(b"")):
            self.put({"x": 1, "global": GLOBAL, "gw_setting": ALONE})
            result = self.interfere_when_written(interference, "set", "none")
            self.fails(result, 5, OPTIONS, "stands there again")
            self.assertEqual(self.document(), {"x": 1, "global": GLOBAL, "gw_setting": ALONE})

    def test_file_that_cannot_be_read_after_a_change_is_told(self):
        self.start_network()
        self.put_setting(ALONE)
        result = self.interfere_when_written(lambda: os.chmod(OPTIONS, 0), "set", "none")
        self.fails(result, 5, OPTIONS, "whether the change was kept is not known", "Permission denied", COPY)
        with open(COPY, encoding="utf-8") as copy:
            self.assertEqual(json.load(copy), {"global": GLOBAL, "gw_setting": ALONE})
        os.chmod(OPTIONS, 0o644)
        self.assertEqual(self.document()["gw_setting"], NONE)
        self.succeed(self.gateway("set", "pptp", "1"))
        self.assertFalse(os.path.exists(COPY))

    def test_user_without_rights_sees_the_setting_and_changes_nothing(self):
        self.put_setting(BACKED_UP)
        self.assertEqual(len(self.lines()), 4)  # makes the lock file
        self.addCleanup(os.chmod, "/etc/config", os.stat("/etc/config").st_mode)
        os.chmod("/etc/config", 0o555)
        self.assertEqual(self.lines()[0], "gateway:       OpenVPN 1")
        for arguments in (["set", "none"], ["drop", "openvpn", "1"]):
            self.fails_and_keeps(4, arguments, "/etc/config/", "cannot be locked", "Permission denied")
        os.chmod("/etc/config", 0o755)
        os.unlink(OPTIONS)
        os.unlink(OPTIONS + ".lck")
        os.chmod("/etc/config", 0o555)
        self.assertEqual(self.lines(), [NO_GATEWAY, NO_SERVICE])

    def test_replaced_file_keeps_its_rights_and_its_links(self):
        os.symlink("ravo/one", OPTIONS)
        os.symlink("two", "/etc/config/ravo/one")
        self.change("set", "openvpn", "1")
        self.assertFalse(os.path.islink("/etc/config/ravo/two"))
        for content, reset in ((b"{}", []), (b"", []), (b"[", ["--reset"])):
            self.put(content)
            os.chmod(OPTIONS, 0o640)
            self.change("set", "openvpn", "1", *reset)
            self.assertTrue(os.path.islink(OPTIONS) and os.path.islink("/etc/config/ravo/one"))
            self.assertEqual(stat.S_IMODE(os.stat(OPTIONS).st_mode), 0o640)
            self.assertEqual(self.document()["gw_setting"], ALONE)

    # --- Interrupted changes ---

    def put_copy(self, content):
        with open(COPY, "wb") as copy:
            copy.write(content)

    def test_signals_act_when_the_change_is_over(self):
        self.start_network()
        for sig in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
            for arguments in (["set", "openvpn", "1"], ["drop", "l2tp", "2"]):
                with self.subTest(sig=sig, arguments=arguments):
                    self.put({"x": 1, "global": GLOBAL, "gw_setting": BACKED_UP})
                    result = self.interrupt(sig, *arguments)
                    self.assertEqual((result.returncode, result.stdout, result.stderr), (-sig, b"", b""))
                    self.assertEqual(self.document(), {"x": 1, "global": GLOBAL, "gw_setting": ALONE})
                    self.assertFalse(os.path.exists(COPY))

    def test_change_that_was_killed_is_taken_back_by_the_next_one(self):
        self.start_network()
        for reset in ([], ["--reset"]):
            self.put({"x": 1, "global": GLOBAL, "gw_setting": BACKED_UP})
            self.assertEqual(self.interrupt(signal.SIGKILL, "set", "openvpn", "3").returncode,
                             -signal.SIGKILL)
            result = self.gateway()
            self.assertEqual((result.returncode, result.stdout.decode().splitlines()[0]), (0, NO_GATEWAY))
            self.assertIn(COPY, result.stderr.decode())
            self.change_saying(TAKEN_BACK, "set", "pptp", "1", *reset)
            self.assertEqual(self.document(), {"x": 1, "global": GLOBAL, "gw_setting": {
                "as_gw_en": 1, "gw1": one(256, 1, "PPTP_CLIENT1"), "failover_en": 0}})

    def test_copy_that_is_all_there_is_comes_back_before_every_change(self):
        before = {"x": 1, "global": GLOBAL, "gw_setting": BACKED_UP}
        for nothing in NOTHING:
            for arguments, errors, after in (
                (["set", "openvpn", "1"], TAKEN_BACK + NOT_READ, before | {"gw_setting": ALONE}),
                (["set", "openvpn", "1", "--reset"], TAKEN_BACK + NOT_READ, before | {"gw_setting": ALONE}),
                (["drop", "l2tp", "2"], TAKEN_BACK + NOT_READ, before | {"gw_setting": ALONE}),
                (["drop", "pptp", "0"], TAKEN_BACK + NOT_READ, before),
            ):
                with self.subTest(nothing=nothing, arguments=arguments):
                    self.put(nothing or b"")
                    if nothing is None:
                        os.unlink(OPTIONS)
                    self.put_copy(json.dumps(before).encode())
                    result = self.gateway("show")
                    self.assertEqual(result.returncode, 7 if nothing in DAMAGED_NOTHING else 0)
                    self.assertIn("a change was interrupted", result.stderr.decode())
                    self.assertIn(COPY, result.stderr.decode())
                    self.change_saying(errors, *arguments)
                    self.assertEqual(self.document(), after)

    def test_copy_comes_back_behind_links(self):
        os.symlink("ravo/options", OPTIONS)
        copy = "/etc/config/ravo/options.ravoctl"
        with open(copy, "w", encoding="utf-8") as file:
            json.dump({"gw_setting": ALONE}, file)
        self.assertIn(copy, self.gateway().stderr.decode())
        self.change_saying(TAKEN_BACK + NOT_READ, "drop", "pptp", "0")
        self.assertTrue(os.path.islink(OPTIONS))
        self.assertEqual(self.document(), {"gw_setting": ALONE})

    def test_copy_that_nobody_needs_is_no_matter(self):
        for content, copy in ((b'{"x": 1}', b'{"y": 2}'), (b"", b""), (b"", b"{}"), (b"", b'{"y"')):
            with self.subTest(content=content, copy=copy):
                self.put(content)
                self.put_copy(copy)
                self.assertEqual(self.lines(), [NO_GATEWAY, NO_SERVICE])
                self.change("set", "openvpn", "1")
                self.assertEqual(self.document(), json.loads(content or "{}") |
                                 {"global": GLOBAL, "gw_setting": ALONE})

    def test_copy_that_cannot_be_read_or_put_back_stops_a_change(self):
        self.put(b"")
        self.put_copy(b'{"x": 1}')
        os.chmod(COPY, 0)
        for arguments in (["set", "none"], ["set", "none", "--reset"], ["drop", "pptp", "1"]):
            self.fails(self.gateway(*arguments), 4, COPY, "Permission denied")
        os.chmod(COPY, 0o644)
        self.gateway()  # makes the lock file
        self.addCleanup(os.chmod, "/etc/config", os.stat("/etc/config").st_mode)
        os.chmod("/etc/config", 0o555)
        self.fails(self.gateway("set", "none", "--reset"), 4, OPTIONS, "cannot be replaced")
        os.chmod("/etc/config", 0o755)
        self.change_saying(TAKEN_BACK + NOT_READ, "drop", "pptp", "1")
        self.assertEqual(self.document(), {"x": 1})

    def test_json_is_for_showing_only(self):
        for arguments in (["set", "none"], ["drop", "pptp", "1"]):
            self.fails_and_keeps(2, ["--json", *arguments], "--json")
        self.assertFalse(os.path.exists(OPTIONS))
        self.assertEqual(self.json("show")["options_file"], "missing")

    def test_changes_at_the_same_time_come_one_after_another(self):
        self.start_network()  # while it answers, another one could write
        self.put({"x": 1})
        tools = [subprocess.Popen([os.environ["RAVOCTL"], "gateway", "set", "openvpn", str(n)],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE) for n in range(8)]
        for n, tool in enumerate(tools):
            output, errors = tool.communicate()
            self.assertEqual((tool.returncode, errors.decode()), (0, ""))
            self.assertEqual(output.decode().splitlines()[0], f"gateway:       OpenVPN {n}")
        last = self.document()["gw_setting"]["gw1"]
        self.assertEqual(last, one(1024, last["index"], f"OPENVPN_CLIENT{last['index']}"))
        self.assertEqual(self.document()["x"], 1)

    # --- Help ---

    def test_help_tells_words_ranges_and_the_status_of_what_was_not_kept(self):
        for command in ("set", "drop"):
            self.assertIn("pptp (0 to 249), l2tp (0 to 749), openvpn (0 to 499), tessel (0 to 2499)",
                          self.succeed(self.gateway(command, "--help")))
        self.assertIn("5 accepted", self.succeed(self.gateway("--help")))
        self.assertRegex(self.succeed(self.gateway("set", "--help")), r"never, 0, 1, 5 or 10; 0 if not")


if __name__ == "__main__":
    unittest.main()
