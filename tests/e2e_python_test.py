"""The Python package over a running ravod: every call, what does not fit, and who is to blame when
nothing is answered. Its records are those of the C header."""
import ctypes
import dataclasses
import json
import os
import re
import subprocess
import sys
import threading
import unittest

sys.path.insert(0, os.environ["PACKAGE"])

import ravo  # noqa: E402
from ravo import _records  # noqa: E402
from support.ravod import RavodTest  # noqa: E402


def names(rows):
    return [row.username for row in rows]


class python_package(RavodTest):
    def client(self):
        self.start_ravod()
        return ravo.Client()

    # --- Records ---------------------------------------------------------------------------------

    def test_layout_is_that_of_the_header(self):
        with open(os.environ["RECORDS_HEADER"], encoding="utf-8") as file:
            header = file.read()
        sizes = dict(re.findall(r"^RAVO_RECORD_SIZE\((\w+), (\d+)\);", header, re.M))
        structures = {record.STRUCT: structure for record, structure in _records.STRUCTURES.items()}
        self.assertEqual(set(structures), {name for name in sizes if not name.endswith("_query")})
        for name, structure in structures.items():
            with self.subTest(record=name):
                self.assertEqual(ctypes.sizeof(structure), int(sizes[name]))
                fields = re.findall(rf"^RAVO_FIELD_AT\({name}, (\w+), (\d+), (\d+)\);", header, re.M)
                ours = [(field, str(getattr(structure, field).offset), str(getattr(structure, field).size))
                        for field, _ in structure._fields_]
                self.assertEqual(ours, fields or ours[:1])

    def test_every_function_of_the_library_is_used(self):
        with open(os.environ["EXPORTS"], encoding="utf-8") as file:
            exported = set(file.read().split())
        called = []

        class Recorder:
            def __getattr__(self, name):
                called.append(name)
                return lambda *arguments: 0

        client = ravo.Client()
        client._library.functions = Recorder()
        for table in (client.sessions, client.outgoing, client.servers):
            table.add(table._record())
        client.events.add(ravo.Event())
        for listed in (client.sessions, client.outgoing, client.servers, client.devices, client.events,
                       client.limiter):
            self.assertRaises(ravo.NoAnswer, listed.page)
        for table in (client.sessions, client.outgoing, client.servers, client.devices):
            table.delete(1)
            table.clean()
        self.assertRaises(ravo.RavoError, client.devices.register, ravo.Device())
        self.assertRaises(ravo.NoAnswer, client.new_uuid)
        client.limiter.add_failure("a"), client.limiter.is_blocked("a")
        client.limiter.lift("a"), client.limiter.lift_all()
        self.assertEqual({name for name in called if name != "zb_strerror"}, exported)
        self.assertEqual(len(exported), 24)

    def test_what_does_not_fit_is_refused_and_nothing_is_sent(self):
        client = self.client()
        for field, value in (("action", 2**31), ("action", -2**31 - 1), ("time", -1), ("time", 2**64),
                             ("tx_total", 2**63), ("username", "x" * 1025), ("username", "é" * 513),
                             ("username", "a\0b"), ("username", 5), ("action", "1"), ("action", 1.5),
                             ("username", "\ud800"), ("username", b"a")):
            with self.subTest(field=field, value=value):
                self.assertRaises(ravo.FieldError, client.sessions.add, ravo.Session(**{field: value}))
        self.assertRaises(ravo.FieldError, client.outgoing.add, ravo.Outgoing(country_code="abc"))
        self.assertRaises(ravo.FieldError, client.servers.add, ravo.Server(device_name="x" * 1024))
        self.assertRaises(ravo.FieldError, client.limiter.add_failure, "x" * 1025)
        for query in ({"order_by": "nix"}, {"where": ("nix", "a")}, {"where": ("limit", 1)}, {"count": 2**63},
                      {"count": -2}, {"start": -1}):
            self.assertRaises(ravo.FieldError, client.sessions.page, **query)
        self.assertEqual(client.sessions.page().total, 0)

    def test_records_come_back_as_they_went(self):
        client = self.client()
        sent = {client.sessions: ravo.Session(
                    username="o'brien", vpn_type=4, uptime=95, time=2**63 - 1, device_info="linux 2.6.14",
                    source_ip="2001:db8::1", vpn_ip="10.8.0.6", tx_rate=-1, rx_rate=800, tx_total=2**63 - 1,
                    rx_total=-2**63, outgoing="b\udcff", action=-2**31),
                client.outgoing: ravo.Outgoing(username="é" * 512, vpn_type=1, country_code="NO", wan_ip="1.2.3.4",
                                               time=5, action=2**31 - 1),
                client.servers: ravo.Server(uuid="8e1f", username="zoë", sid="s", device_name="x" * 1023,
                                            expire_time=9, time=8)}
        for table, record in sent.items():
            table.add(record)
            self.assertEqual(table.page().rows, [dataclasses.replace(record, id=1)])

    # --- Lists -----------------------------------------------------------------------------------

    def test_pages_orders_and_filters(self):
        sessions = self.client().sessions
        for name in "abcde":
            sessions.add(ravo.Session(username=name, uptime=200 - ord(name), action=ord(name) % 2))
        page = sessions.page(count=2, order_by="uptime", descending=True)
        self.assertEqual((names(page.rows), page.total), (["a", "b"], 5))
        self.assertEqual(names(sessions.page(start=3).rows), ["d", "e"])
        self.assertEqual(names(sessions.page(where=("action", 0)).rows), ["b", "d"])
        self.assertEqual(sessions.page(count=0), ravo.Page([], 5))
        for size in (1, 2, 5, 6):
            self.assertEqual(names(sessions.all(page_size=size)), list("abcde"))
            self.assertEqual(names(sessions.all(page_size=size, descending=True)), list("edcba"))
            self.assertEqual(names(sessions.all(page_size=size, where=("action", 1))), list("ace"))
            self.assertEqual(names(sessions.all(page_size=size, order_by="uptime")), list("edcba"))
        self.assertEqual(names(sessions), list("abcde"))

    def test_rows_that_come_meanwhile_come_once(self):
        sessions = self.client().sessions
        for name in "ab":
            sessions.add(ravo.Session(username=name))
        seen = []
        for row in sessions.all(descending=True, page_size=1):
            seen.append(row.username)
            if len(seen) == 1:
                sessions.add(ravo.Session(username="late"))
        self.assertEqual(seen, ["b", "a"])

    def test_table_that_cannot_be_counted_is_no_empty_one(self):
        client = self.client()
        subprocess.run(["sqlite3", "/etc/config/ravo/ravo.db", "DROP TABLE conn_server_log"], check=True)
        self.assertRaisesRegex(ravo.NoAnswer, "could not read", client.sessions.page)

    def test_events_are_taken_and_never_listed(self):
        client = self.client()
        client.events.add(ravo.Event())
        self.assertRaisesRegex(ravo.NoAnswer, "did not answer", client.events.page)

    # --- Deletes, devices, the limiter -----------------------------------------------------------

    def test_delete_and_clean(self):
        client = self.client()
        for name in "abc":
            client.sessions.add(ravo.Session(username=name))
            client.outgoing.add(ravo.Outgoing(username=name))
        client.sessions.delete(2)
        self.assertEqual(names(client.sessions), ["a", "c"])
        client.outgoing.clean()
        self.assertEqual(list(client.outgoing), [])

    def test_devices_keep_their_uuid(self):
        client = self.client()
        device = ravo.Device(mac="26:30:2d:70:37:d8", user_id="alice", nic="tun0")
        uuid = client.devices.register(device)
        self.assertRegex(uuid, r"^[0-9a-f]{32}%R\?$")
        self.assertEqual(client.devices.register(device), uuid)
        self.assertEqual([row.dev_uuid for row in client.devices], [uuid])
        self.assertRegex(client.new_uuid(), r"^[0-9a-f]{32}%R\?$")
        self.assertNotEqual(client.new_uuid(), client.new_uuid())

    def test_limiter(self):
        with open("/etc/config/vpn_block.conf", "w", encoding="utf-8") as file:
            json.dump({"global": {"enable": True, "limit": 2, "time": 5}}, file)
        self.start(os.environ["VPNCAAS"])
        limiter = self.client().limiter
        for count, is_blocked in ((1, False), (2, True)):
            limiter.add_failure("zoë")
            self.assertEqual([(row.username, row.limit) for row in limiter], [("zoë", count)])
            self.assertIs(limiter.is_blocked("zoë"), is_blocked)
        self.assertEqual(len(limiter.page(where=("limit_count", 2)).rows), 1)
        limiter.lift("zoë")
        self.assertFalse(limiter.is_blocked("zoë"))
        limiter.add_failure("a"), limiter.lift_all()
        self.assertEqual(list(limiter), [])

    # --- Failures --------------------------------------------------------------------------------

    def test_failures_are_told_apart(self):
        client = ravo.Client()
        with self.assertRaisesRegex(ravo.NotReachable, "did not take the call: ") as raised:
            client.sessions.add(ravo.Session())
        self.assertEqual(raised.exception.result, -3)
        self.assertRaises(ravo.NotReachable, client.limiter.is_blocked, "a")
        self.assertRaises(ravo.NoAnswer, client.sessions.page)
        self.assertRaises(ravo.NoAnswer, lambda: list(client.sessions))
        self.assertRaises(ravo.NoAnswer, client.new_uuid)
        for folder in ("/nix", "/etc"):
            self.assertRaisesRegex(ravo.LibraryMissing, "cannot load", ravo.Client, folder)
        for error in (ravo.NotReachable, ravo.NoAnswer, ravo.LibraryMissing, ravo.FieldError):
            self.assertTrue(issubclass(error, ravo.RavoError))

    def test_numbers_have_their_kind_and_no_kind_on_another_bus(self):
        library = ravo.Client()._library
        for result, kind in ((-3, ravo.NotReachable), (-4, ravo.NotAllowed), (-5, ravo.NotAllowed),
                             (-7, ravo.TimedOut), (-9, ravo.CallError), (-99, ravo.CallError)):
            with self.assertRaises(ravo.CallError) as raised:
                library.check(result)
            self.assertIs(type(raised.exception), kind)

        class OtherBus:
            """A library without zb_strerror."""

        library.functions = OtherBus()
        with self.assertRaisesRegex(ravo.CallError, "bus result -3") as raised:
            library.check(-3)
        self.assertIs(type(raised.exception), ravo.CallError)

    def test_threads_call_at_the_same_time(self):
        client = self.client()

        def add():
            for _ in range(20):
                client.sessions.add(ravo.Session(username=threading.current_thread().name))

        threads = [threading.Thread(target=add) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(client.sessions.page().total, 80)

    def test_types_hold(self):
        result = self.run_program("/usr/bin/mypy", "--strict", "--cache-dir=/dev/null",
                                  os.environ["PACKAGE"] + "/ravo")
        self.assertEqual(result.returncode, 0, result.stdout.decode() + result.stderr.decode())
        self.assertTrue(os.path.exists(os.environ["PACKAGE"] + "/ravo/py.typed"))


if __name__ == "__main__":
    unittest.main()
