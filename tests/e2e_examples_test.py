"""The example programs against a running ravod."""
import json
import os
import re
import unittest

from support.ravod import RavodTest

EXAMPLES = os.environ["EXAMPLES"]


class examples(RavodTest):
    def example(self, name, *arguments):
        return self.run_program("/usr/bin/python3", "-B", f"{EXAMPLES}/{name}", *arguments)

    def rows(self):
        result = self.ravoctl("sessions", "--json", "--per-page", "100")
        return json.loads(self.succeed(result))["rows"]

    def replay(self, text):
        with open("/tmp/calls.jsonl", "w", encoding="utf-8") as file:
            file.write(text)
        return self.example("replay_connections.py", "/tmp/calls.jsonl")

    def test_c_program_records_and_lists(self):
        self.start_ravod()
        output = self.succeed(self.run_program(os.environ["C_EXAMPLE"], "zoë"))
        self.assertRegex(output, r"^1 zoë from 203\.0\.113\.20 at \d+\n1 of 1 connections\n$")

    def test_python_program_records_and_lists(self):
        self.start_ravod()
        output = self.succeed(self.example("record_and_list.py", "o'brien"))
        self.assertIn("o'brien", output)
        self.assertIn("1 of 1 connections", output)
        self.assertEqual([row["username"] for row in self.rows()], ["o'brien"])

    def test_programs_say_that_the_daemon_is_missing(self):
        self.fails(self.run_program(os.environ["C_EXAMPLE"]), 1, "ravod")
        self.fails(self.example("record_and_list.py"), 1, "ravod")
        self.fails(self.example("replay_connections.py"), 1, "ravod", "line 2")
        self.fails(self.example("register_devices.py"), 1, "ravod", "line 2")
        self.fails(self.example("replay_logins.py"), 1, "ravod", "line 1")

    def test_replay_records_each_connect_and_disconnect(self):
        self.start_ravod()
        self.assertIn("10 connects", self.succeed(self.example("replay_connections.py")))
        rows = self.rows()
        self.assertEqual([row["action"] for row in rows], [1, 1, 1, 2, 2, 2, 1, 2, 1, 2])
        self.assertEqual(sorted({row["username"] for row in rows}), ["100%", "alice", "o'brien", "zoë"])
        self.assertEqual(rows[3], {
            "id": 4, "username": "zoë", "vpn_type": 4, "uptime": 9, "time": 1795222867,
            "device_info": "linux 2.6.14 zo__-laptop", "source_ip": "203.0.113.13",
            "vpn_ip": "10.88.0.4", "tx_rate": 0, "rx_rate": 0, "tx_total": 27323,
            "rx_total": 27161, "outgoing": "tun0", "action": 2,
        })

    def test_devices_that_connect_again_keep_their_uuid(self):
        self.start_ravod()
        lines = self.succeed(self.example("register_devices.py")).splitlines()
        self.assertEqual(lines.pop(), "5 registrations from openvpn-sessions.jsonl")
        devices = [line.split(" ") for line in lines]
        self.assertEqual([user for _, _, user in devices], ["alice", "o'brien", "zoë", "alice", "100%"])
        uuids = {mac: uuid for mac, uuid, _ in devices[:3]}
        self.assertEqual(len(set(uuids.values())), 3)
        for mac, uuid, _ in devices:
            self.assertEqual(uuid, uuids[mac])
            self.assertTrue(re.fullmatch(r"[0-9a-f]{32}%R\?", uuid))
        row = json.loads(self.succeed(self.ravoctl("devices", "--json")))["rows"][0]
        self.assertEqual(row, {
            "id": 1, "ip": "10.88.0.2", "mac": "26:30:2d:70:37:d8", "vossid": "", "user_id": "alice",
            "dev_name": "alice-laptop", "dev_uuid": devices[0][1], "nic": "tun0", "time": 1795222858,
        })

    def replayed_logins(self):
        lines = self.succeed(self.example("replay_logins.py")).splitlines()
        self.assertEqual(lines.pop(), "8 logins replayed from openvpn-sessions.jsonl")
        return [line.split(maxsplit=1) for line in lines]

    def test_logins_are_counted_and_a_blocked_user_is_turned_away(self):
        with open("/etc/config/vpn_block.conf", "w", encoding="utf-8") as file:
            json.dump({"global": {"enable": True, "limit": 3, "time": 5}}, file)
        self.start(os.environ["VPNCAAS"])
        self.start_ravod()
        logins = self.replayed_logins()
        self.assertEqual([what.split()[0].strip(",") for _, what in logins],
                         ["accepted"] * 3 + ["refused"] * 3 + ["accepted"] * 2)
        self.assertEqual(self.ravoctl("blocks", "check", "mallory").returncode, 1)
        for _ in range(3):
            self.succeed(self.ravoctl("blocks", "fail", "alice"))
        self.assertEqual([user for user, what in self.replayed_logins() if "turned away" in what],
                         ["alice", "alice"])

    def test_replay_takes_the_address_of_either_family(self):
        self.start_ravod()
        env = {"username": "a", "time_unix": "5", "trusted_ip6": "2001:db8::1", "dev": "tun0",
               "ifconfig_pool_remote_ip": "10.0.0.1"}
        self.succeed(self.replay(json.dumps({"hook": "connect", "env": env})))
        self.assertEqual(self.rows()[0]["source_ip"], "2001:db8::1")

    def test_replay_names_the_line_that_it_cannot_use(self):
        self.start_ravod()
        auth = '{"hook": "auth", "env": {}}\n'
        for line, word in (
            ("nonsense", "line 2"), ("[]", "line 2"), ('{"env": {}}', "hook"),
            ('{"hook": "connect", "env": {}}', "username"), ('{"hook": "connect"}', "env"),
        ):
            with self.subTest(line=line):
                self.fails(self.replay(auth + line), 1, "line 2", word)
        self.fails(self.example("replay_connections.py", "/nix"), 1, "/nix")


if __name__ == "__main__":
    unittest.main()
