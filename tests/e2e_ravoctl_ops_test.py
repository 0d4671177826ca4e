"""What ravoctl does for those who run a daemon: completion."""
import os
import pty
import select
import subprocess
import unittest

from support.ravod import TIMEOUT_SECONDS, RavodTest

# Prints what bash would offer for the words given to it, of which the last one is at the cursor.
COMPLETE = """
source <("$1" completion bash); shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_ravoctl 2>/dev/null
printf '%s\\n' "${COMPREPLY[@]}"
"""


class ravoctl_ops(RavodTest):
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
            output = b""
            while b"#compdef ravoctl" not in output:
                self.assertTrue(select.select([master], [], [], TIMEOUT_SECONDS)[0], output)
                output += os.read(master, 65536)
        finally:
            shell.kill()
            shell.wait()
            os.close(master)


if __name__ == "__main__":
    unittest.main()
