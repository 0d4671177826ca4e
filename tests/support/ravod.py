"""A real ravod and ravoctl for tests in Python: started, awaited through readiness, stopped.

The programs are those that the environment names: RAVOD, RAVOCTL. Nothing here sleeps.
"""
import os
import select
import shutil
import socket
import struct
import subprocess
import unittest

TIMEOUT_SECONDS = 10
DATABASE_FOLDER = "/etc/config/ravo"
DATABASE = DATABASE_FOLDER + "/ravo.db"


class Service:
    """A program that serves an endpoint and announces it; killed when the test ends.

    pid is the process that serves, which the program may have started in turn.
    """

    def __init__(self, *command):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            ready.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
            ready.bind("")
            address = "@" + ready.getsockname()[1:].decode()
            self.process = subprocess.Popen(command, env={**os.environ, "NOTIFY_SOCKET": address})
            self.wait_for_word_or_end(ready)

    def wait_for_word_or_end(self, ready):
        end = os.pidfd_open(self.process.pid)
        try:
            readable, _, _ = select.select([ready, end], [], [], TIMEOUT_SECONDS)
        finally:
            os.close(end)
        if ready not in readable:
            self.process.kill()
            raise AssertionError(f"it does not serve; exit status {self.process.wait()}")
        credentials = struct.Struct("iII")  # pid, uid, gid
        text, control, _, _ = ready.recvmsg(4096, socket.CMSG_SPACE(credentials.size))
        assert text == b"READY=1"
        self.pid = credentials.unpack(control[0][2])[0]

    def stop(self):
        """Asks it to end, and returns its exit status. Once more does nothing."""
        self.process.terminate()
        return self.process.wait(TIMEOUT_SECONDS)


class RavodTest(unittest.TestCase):
    """An empty database in every test; the small verbs of all tests of programs."""

    def setUp(self):
        shutil.rmtree(DATABASE_FOLDER, ignore_errors=True)
        os.makedirs(DATABASE_FOLDER, exist_ok=True)

    def start(self, *command):
        service = Service(*command)
        self.addCleanup(lambda: self.assertEqual(service.stop(), 0))
        return service

    def start_ravod(self):
        return self.start(os.environ["RAVOD"])

    def run_program(self, *command, **options):
        """Runs a program to its end and returns what it left; output is bytes."""
        return subprocess.run(command, capture_output=True, timeout=50, check=False, **options)

    def ravoctl(self, *arguments, **options):
        return self.run_program(os.environ["RAVOCTL"], *arguments, **options)

    def succeed(self, result):
        """Its standard output as text, when it ended with status 0 and complained of nothing."""
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return result.stdout.decode()

    def fails(self, result, status, *words):
        """It ended so, said each of the words on standard error and nothing on standard output."""
        self.assertEqual((result.returncode, result.stdout), (status, b""), result.stderr)
        for word in words:
            self.assertIn(word, result.stderr.decode())
