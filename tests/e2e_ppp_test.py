"""The scripts for pppd, called as pppd(8) says that it calls them: six words, and an environment of its
own variables alone. What a script leaves behind becomes a child of the test, which waits for its end."""
import json
import os
import subprocess
import unittest

from support.hooks import adopt_orphans, children, system_log
from support.ravod import RavodTest

SCRIPTS = os.environ["SCRIPTS"]
HELPER = os.environ["RAVO_PPP"]
WAITING = "/var/spool/ravo-ppp/waiting"
OPEN = "/var/spool/ravo-ppp/open"

UP = {"DEVICE": "/dev/pts/3", "IFNAME": "ppp0", "IPLOCAL": "10.0.0.1", "IPREMOTE": "10.0.0.10", "PEERNAME": "alice",
      "SPEED": "115200", "ORIG_UID": "0", "PPPLOGNAME": "root", "RAVO_VPN": "pptp"}
DOWN = UP | {"CONNECT_TIME": "95", "BYTES_SENT": "114000", "BYTES_RCVD": "76000"}


class ppp(RavodTest):
    def setUp(self):
        super().setUp()
        adopt_orphans()
        self.log = system_log(self)
        # In the place of a pppd: a process that runs until it is told to end.
        self.pppd = subprocess.Popen(["/bin/cat"], stdin=subprocess.PIPE)
        self.addCleanup(self.end_pppd)

    def end_pppd(self):
        self.pppd.communicate()

    def logged(self):
        try:
            return self.log.recv(65536).decode()
        except BlockingIOError:
            return ""

    def script(self, name, env, ipparam="203.0.113.7", pid=None):
        """Calls a script as pppd does, and waits for the end of all that it starts."""
        env = env | {"PPPD_PID": str(pid or self.pppd.pid)}
        words = (env.get("IFNAME", ""), env.get("DEVICE", ""), env.get("SPEED", ""), env.get("IPLOCAL", ""),
                 env.get("IPREMOTE", ""), ipparam)
        before = children()
        result = self.run_program(f"{SCRIPTS}/{name}", *words, env=env, stdin=subprocess.DEVNULL)
        for pid_left in children() - before:
            os.waitpid(pid_left, 0)
        self.succeed(result)

    def rows(self):
        listed = self.succeed(self.ravoctl("sessions", "--rows", "--json", "-n", "all"))
        return json.loads(listed, strict=False)["rows"]

    def test_connection_becomes_rows(self):
        self.start_ravod()
        for kind, number in (("pptp", 1), ("l2tp", 2)):
            self.script("ip-up", UP | {"RAVO_VPN": kind})
            self.assertEqual(len(os.listdir(OPEN)), 1)
            self.script("ip-down", DOWN | {"RAVO_VPN": kind})
            begun, ended = self.rows()[-2:]
            self.assertAlmostEqual(begun["time"], ended["time"], delta=30)
            for row in (begun, ended):
                del row["id"], row["time"]
            common = {"username": "alice", "vpn_type": number, "device_info": "", "source_ip": "203.0.113.7",
                      "vpn_ip": "10.0.0.10", "tx_rate": 0, "rx_rate": 0, "outgoing": "ppp0"}
            self.assertEqual(begun, common | {"uptime": 0, "tx_total": 0, "rx_total": 0, "action": 1})
            self.assertEqual(ended, common | {"uptime": 95, "tx_total": 114000, "rx_total": 76000, "action": 2})
            self.assertEqual(os.listdir(OPEN), [])
        self.assertEqual(self.logged(), "")

    def test_names_and_addresses_as_they_come(self):
        self.start_ravod()
        cases = (({"PEERNAME": "DOMAIN\\zoë"}, "203.0.113.8", "DOMAIN\\zoë", "203.0.113.8"),
                 ({"PEERNAME": "$(touch /tmp/hurt)"}, "2001:db8::1", "$(touch /tmp/hurt)", "2001:db8::1"),
                 ({"PEERNAME": "a\nb"}, "no address", "a\nb", ""), ({"PEERNAME": ""}, "", "", ""))
        for variables, ipparam, name, source in cases:
            self.script("ip-up", UP | variables, ipparam)
            row = self.rows()[-1]
            self.assertEqual((row["username"], row["source_ip"], row["action"]), (name, source, 1))
            self.script("ip-down", DOWN | variables, ipparam)
        self.assertFalse(os.path.exists("/tmp/hurt"))
        self.assertEqual([row["action"] for row in self.rows()], [1, 2] * len(cases))

    def test_other_connections_are_not_recorded(self):
        self.start_ravod()
        provider = {name: value for name, value in UP.items() if name != "RAVO_VPN"}
        self.script("ip-up", provider)
        self.assertEqual(self.logged(), "")
        self.script("ip-up", UP | {"RAVO_VPN": "PPTP"})
        self.assertIn("RAVO_VPN is neither pptp nor l2tp, but PPTP", self.logged())
        self.assertEqual(self.rows(), [])

    def test_killed_pppd_loses_its_connection_when_the_next_one_comes(self):
        self.start_ravod()
        self.script("ip-up", UP)
        self.script("ip-up", UP | {"PEERNAME": "bob", "IFNAME": "ppp1", "IPREMOTE": "10.0.0.11"}, pid=os.getpid())
        self.assertEqual([row["action"] for row in self.rows()], [1, 1])
        self.end_pppd()
        self.script("ip-up", UP | {"PEERNAME": "carol"}, pid=os.getppid())
        self.assertEqual([(row["username"], row["action"]) for row in self.rows()],
                         [("alice", 1), ("bob", 1), ("alice", 3), ("carol", 1)])

    def test_pppd_that_ends_before_its_script_has_ended_its_connection(self):
        self.start_ravod()
        self.script("ip-up", UP)
        self.end_pppd()
        self.script("ip-down", DOWN)
        self.assertEqual([row["action"] for row in self.rows()], [1, 2])
        self.assertEqual(os.listdir(OPEN), [])

    def test_connections_wait_for_the_daemon(self):
        self.script("ip-up", UP)
        self.script("ip-down", DOWN)
        self.assertIn("ravod does not take records", self.logged())
        self.assertEqual(len(os.listdir(WAITING)), 2)
        self.assertEqual(self.run_program(HELPER, "replay").returncode, 1)
        self.start_ravod()
        self.assertEqual(self.run_program(HELPER, "replay").returncode, 0)
        self.assertEqual([row["action"] for row in self.rows()], [1, 2])
        self.assertEqual(os.listdir(WAITING), [])

    def test_wrong_usage(self):
        for words in ((), ("nix",), ("ip-up",), ("ip-up", "ppp0", "tty", "0", "10.0.0.1")):
            self.fails(self.run_program(HELPER, *words, env={"RAVO_VPN": "pptp"}), 2, "usage: ravo-ppp")


if __name__ == "__main__":
    unittest.main()
