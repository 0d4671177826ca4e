"""Real OpenVPN servers and clients: the listing equals what OpenVPN itself says.

Each client is in a network of its own. Nothing sleeps: what is waited for is a line of OpenVPN's log.
"""
import json
import os
import re
import signal
import sys
import unittest

from support.ravod import RavodTest

sys.path.insert(0, os.environ["TOOLS"])
import openvpn_lab  # noqa: E402

HELPER = os.environ["RAVO_OPENVPN"]
CONNECTED, DISCONNECTED, LOST = 1, 2, 3
HOSTILE = '"$(touch /tmp/hurt)`touch /tmp/hurt`\';touch /tmp/hurt %n'
COMPLETED = "Initialization Sequence Completed"


class openvpn(RavodTest):
    def setUp(self):
        super().setUp()
        with open("/etc/config/vpn_block.conf", "w", encoding="utf-8") as file:
            json.dump({"global": {"enable": True, "limit": 3, "time": 5}}, file)
        self.start(os.environ["VPNCAAS"])
        self.lab = openvpn_lab.Lab()
        self.addCleanup(self.lab.end)
        verifier = self.lab.write("verifier", openvpn_lab.VERIFIER, 0o700)
        with open("/etc/ravo-openvpn.conf", "w", encoding="utf-8") as file:
            file.write(f"verifier {verifier}\n")

    def start_server(self, *lines):
        return self.lab.start_server(f"config {os.environ['INCLUDES']}/ravod-auth.conf", *lines)

    def rows(self):
        """The listing, once everything has arrived."""
        self.assertEqual(self.run_program(HELPER, "replay").returncode, 0)
        result = self.ravoctl("sessions", "--rows", "--json", "-n", "all")
        return json.loads(self.succeed(result))["rows"]

    def row_of(self, user, action):
        """The user's newest row with that action."""
        return [row for row in self.rows() if row["username"] == user and row["action"] == action][-1]

    def start_clients(self, *users):
        """All at the same time, each in the network of its place. The second one has IPv6."""
        clients = {user: self.lab.start_client(number, user, family=6 if number == 2 else 4)
                   for number, user in enumerate(users, 1)}
        for client in clients.values():
            client.wait_for(COMPLETED)
        return clients

    # --- What OpenVPN says -----------------------------------------------------------------------

    def address_of(self, client):
        """Of a client in the status, without its port."""
        real = client["Real Address"]
        return real if real.count(":") != 1 else real.partition(":")[0]

    def expect_open_sessions(self, clients):
        """The newest connect of each user is that of the status."""
        for client in clients:
            row = self.row_of(client["Username"], CONNECTED)
            self.assertEqual((row["source_ip"], row["vpn_ip"], row["time"]),
                             (self.address_of(client),
                              f"{client['Virtual Address']} {client['Virtual IPv6 Address']}",
                              int(client["Connected Since (time_t)"])))

    def expect_bytes(self, client):
        """The user's newest disconnect has the counts of the status."""
        row = self.row_of(client["Username"], DISCONNECTED)
        self.assertEqual((row["rx_total"], row["tx_total"]),
                         (int(client["Bytes Received"]), int(client["Bytes Sent"])))

    def expect_log(self, server, rows):
        """The connects, in the order of the server's log."""
        said = [re.search(r"primary virtual IP for (.*)/([0-9a-f.:]*): (\S+)$", line)
                for line in server.lines if "primary virtual IP for" in line]
        told = [(row["username"], row["vpn_ip"].split()[0]) for row in rows if row["action"] == CONNECTED]
        self.assertEqual(told, [(found[1], found[3]) for found in said])

    # --- Cases -----------------------------------------------------------------------------------

    def test_listing_equals_status_and_log(self):
        self.start_ravod()
        server = self.start_server()
        users = ("alice", "o'brien", "zoë", "100%", HOSTILE)
        clients = self.start_clients(*users)
        server.wait_for("o'brien/.* Data Channel: ")  # nothing is left to be repeated
        with openvpn_lab.Management() as management:
            status = {client["Username"]: client for client in management.clients()}
            self.assertEqual(sorted(status), sorted(users))
            self.expect_open_sessions(status.values())
            # A client that is killed says no more, and neither does the server to it.
            clients["o'brien"].end(signal.SIGKILL)
            for _ in range(3):
                last_words = [client for client in management.clients() if client["Username"] == "o'brien"]
            # The status and the end of a session in one piece.
            management.send("status 3", "kill zoë")
            before_kill = [client for client in management.read_clients() if client["Username"] == "zoë"]
            # A client that leaves.
            clients["100%"].end(signal.SIGTERM)
            server.wait_for("100%/.* received, client-instance")
            # The same user once more.
            self.lab.connect(6, "alice")
            server.wait_for("o'brien/.* received, client-instance")
            now = {client["Username"]: client for client in management.clients()}
        self.assertEqual(sorted(now), sorted(["alice", HOSTILE]))
        self.assertNotEqual(now["alice"]["Real Address"], status["alice"]["Real Address"])
        self.assertEqual(now["alice"]["Virtual Address"], status["alice"]["Virtual Address"])
        self.expect_open_sessions(now.values())
        self.expect_bytes(*last_words)
        self.expect_bytes(*before_kill)
        alices = [row["action"] for row in self.rows() if row["username"] == "alice"]
        self.assertEqual(alices, [CONNECTED, DISCONNECTED, CONNECTED])
        server.end()
        rows = self.rows()
        self.expect_log(server, rows)
        for user in users:
            actions = [row["action"] for row in rows if row["username"] == user]
            self.assertEqual(actions, [CONNECTED, DISCONNECTED] * (2 if user == "alice" else 1))
        self.assertEqual(os.listdir("/var/spool/ravo-openvpn/open"), [])
        self.assertFalse(os.path.exists("/tmp/hurt"))
        devices = json.loads(self.succeed(self.ravoctl("devices", "--json")))["rows"]
        self.assertIn("alice", {device["user_id"] for device in devices})

    def test_wrong_passwords_end_in_a_block_that_the_client_is_told(self):
        self.start_ravod()
        self.start_server()
        for _ in range(3):
            refused = self.lab.start_client(1, "mallory", "wrong").wait_for("AUTH_FAILED.*")
            self.assertEqual(refused[0], "AUTH_FAILED")
        blocked = self.lab.start_client(1, "mallory", "right").wait_for("AUTH_FAILED.*")
        self.assertEqual(blocked[0], "AUTH_FAILED,Too many failed logins. Try again in 5 minutes.")
        self.succeed(self.ravoctl("blocks", "lift", "mallory"))
        self.lab.connect(1, "mallory")
        self.assertEqual([row["username"] for row in self.rows()], ["mallory"])

    def test_sessions_go_on_without_the_daemon(self):
        server = self.start_server()
        self.lab.connect(1, "alice").end(signal.SIGTERM)
        server.wait_for("alice/.* received, client-instance")
        server.end()
        self.start_ravod()
        self.assertEqual([row["action"] for row in self.rows()], [CONNECTED, DISCONNECTED])

    def test_client_that_moves_ends_the_session_that_it_began(self):
        self.start_ravod()
        server = self.start_server("verb 5")
        self.lab.connect(1, "alice")
        server.wait_for("alice/.* Data Channel: ")
        self.lab.move(1, "203.0.113.99")
        server.wait_for(r"floated from .* to .*203\.0\.113\.99")
        server.end()
        self.assertEqual([(row["action"], row["source_ip"]) for row in self.rows()],
                         [(CONNECTED, "203.0.113.11"), (DISCONNECTED, "203.0.113.99")])
        self.assertEqual(os.listdir("/var/spool/ravo-openvpn/open"), [])

    def test_killed_server_loses_its_sessions(self):
        self.start_ravod()
        server = self.start_server()
        self.start_clients("alice", "o'brien")
        self.assertEqual([row["action"] for row in self.rows()], [CONNECTED] * 2)
        server.end(signal.SIGKILL)
        server = self.start_server()
        rows = self.rows()
        self.assertEqual([row["action"] for row in rows], [CONNECTED] * 2 + [LOST] * 2)
        self.assertEqual(sorted(row["username"] for row in rows[2:]), ["alice", "o'brien"])
        for user in ("alice", "o'brien"):
            lost, connected = self.row_of(user, LOST), self.row_of(user, CONNECTED)
            self.assertEqual(lost["time"] - lost["uptime"], connected["time"])
        server.end()
        self.assertEqual(len(self.rows()), 4)


if __name__ == "__main__":
    missing = openvpn_lab.what_is_missing()
    if missing:
        print(f"NOT TESTED: real OpenVPN servers and clients; {missing}", file=sys.stderr)
        sys.exit(77)
    unittest.main()
