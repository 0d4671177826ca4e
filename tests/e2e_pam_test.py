"""pam_ravod in services of PAM: the examples of docs/pam.md as they stand, with a module that knows
passwords in the place of the machine's, and each step alone.

Logins are those of pamtester (packages pamtester and libpam-wrapper)."""
import glob
import grp
import json
import os
import pwd
import re
import socket
import unittest

from support.ravod import RavodTest

MODULE = os.environ["PAM_RAVOD"]
PASSWORDS = glob.glob("/usr/lib/*/pam_wrapper/pam_matrix.so")[0] + " passdb=/tmp/passwords"
DENIED = "Authentication failure"
TRIED_TOO_OFTEN = "exhausted maximum number of retries"
UNAVAILABLE = "Authentication service cannot retrieve authentication info"
TOLD = "Too many failed logins. Try again in 5 minutes.\n"
USER = pwd.getpwuid(0).pw_name
GROUP = grp.getgrgid(0).gr_name


def examples():
    with open(os.environ["PAM_DOCUMENT"], encoding="utf-8") as file:
        return re.findall(r"^```pam\n(.*?)^```", file.read(), re.M | re.S)


class pam(RavodTest):
    def setUp(self):
        super().setUp()
        for folder in ("/etc/pam.d", "/tmp"):
            os.makedirs(folder, exist_ok=True)
        with open("/tmp/passwords", "w", encoding="utf-8") as file:
            file.write("".join(f"{name}:right:vpn\n" for name in ("alice", "o'brien", "zoë", USER, "100%")))
        self.log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.log.bind("/dev/log")
        self.log.setblocking(False)
        self.lines = []
        self.addCleanup(self.log.close)

    def read_log(self):
        """Programs that log wait for a reader, once some lines are unread."""
        try:
            while True:
                self.lines.append(self.log.recv(65536).decode(errors="replace"))
        except BlockingIOError:
            pass

    def logged(self):
        """The system log since the last call."""
        self.read_log()
        text, self.lines = "\n".join(self.lines), []
        return text

    def start_limiter(self, **members):
        with open("/etc/config/vpn_block.conf", "w", encoding="utf-8") as file:
            json.dump({"global": {"enable": True, "limit": 3, "time": 5} | members}, file)
        self.start(os.environ["VPNCAAS"])
        return self.start_ravod()

    def service(self, text):
        with open("/etc/pam.d/vpn", "w", encoding="utf-8") as file:
            file.write(re.sub(r"pam_(unix|ldap)\.so( use_first_pass)?", PASSWORDS, text)
                       .replace("pam_ravod.so", MODULE))

    def pamtester(self, user, *operations, password="wrong"):
        """The exit status, what the user is told, and what pamtester says of the result."""
        typed = f"{password}\n".encode() * 2  # a second module asks again
        result = self.run_program("pamtester", "vpn", user, *operations, input=typed)
        self.read_log()
        return result.returncode, result.stdout.decode(), result.stderr.decode()

    def log_in(self, user, password):
        return self.pamtester(user, "authenticate", "setcred", "acct_mgmt", password=password)

    def alone(self, line, user, operation="authenticate"):
        """The result of one line in a service that else lets everybody in."""
        kind = "account" if operation == "acct_mgmt" else "auth"
        self.service(f"{kind} [default=done ignore=ignore] pam_ravod.so {line}\n{kind} required pam_permit.so\n")
        return self.pamtester(user, operation)

    def failures(self):
        listed = self.ravoctl("blocks", "--json").stdout
        return {row["username"]: row["limit_count"] for row in json.loads(listed)["rows"]}

    def count(self, user, times):
        for _ in range(times):
            self.succeed(self.ravoctl("blocks", "fail", user))

    # --- Services --------------------------------------------------------------------------------

    def check_example(self, text, user):
        """Two failures that a right password forgets, then as many as block."""
        self.service(text)
        for count in (1, 2):
            status, told, result = self.log_in(user, "wrong")
            self.assertEqual((status, told), (1, ""))
            self.assertIn(DENIED, result)
            self.assertEqual(self.failures(), {user: count})
        self.assertEqual(self.log_in(user, "right")[0], 0, self.logged())
        self.assertEqual(self.failures(), {})
        for _ in range(3):
            self.assertEqual(self.log_in(user, "wrong")[0], 1)
        for password in ("wrong", "right"):
            status, told, result = self.log_in(user, password)
            self.assertEqual((status, told), (1, "" if "silent" in text else TOLD))
            self.assertIn(TRIED_TOO_OFTEN, result)
            self.assertEqual("Password:" in result, "silent" in text)
        self.assertEqual(self.failures(), {user: 3})
        self.assertIn(f"login of {user} refused", self.logged())
        self.succeed(self.ravoctl("blocks", "lift", user))
        self.assertEqual(self.log_in(user, "right")[0], 0)

    def test_documented_services_block_and_forget(self):
        self.start_limiter()
        texts = examples()
        self.assertEqual(len(texts), 4)
        for text in texts:
            with self.subTest(text=text):
                if "known_users_only" in text:
                    # The machine knows one user in here, who is in the group that goes free.
                    self.check_example(text.replace("exempt_group=adm ", ""), USER)
                else:
                    self.check_example(text, "o'brien")
        self.assertNotIn("not understood", self.logged())

    def test_exempt_and_unknown_users_are_neither_held_back_nor_counted(self):
        self.start_limiter()
        for options, user, is_free in ((f"exempt_group={GROUP}", USER, True), ("known_users_only", "alice", True),
                                       ("exempt_group=nix", USER, False), ("known_users_only", USER, False),
                                       (f"exempt_group={GROUP}", "alice", False)):
            with self.subTest(options=options, user=user):
                self.service(re.sub(r"(pam_ravod.so \w+)", rf"\1 {options}", examples()[0]))
                self.succeed(self.ravoctl("blocks", "lift", user))
                self.log_in(user, "wrong")
                self.assertEqual(self.failures(), {} if is_free else {user: 1})
                self.count(user, 3)
                self.assertEqual(self.log_in(user, "right")[0], 0 if is_free else 1)
                self.succeed(self.ravoctl("blocks", "lift", user))

    # --- Lines alone -----------------------------------------------------------------------------

    def test_service_without_a_judge_lets_nobody_in(self):
        self.start_limiter()
        self.service("auth required pam_ravod.so preauth\n")
        self.assertEqual(self.pamtester("alice", "authenticate")[0], 1)

    def test_account_refuses_nobody_and_forgets(self):
        self.start_limiter()
        for line in ("", "authsucc"):
            self.count("alice", 3)
            self.assertEqual(self.alone(line, "alice", "acct_mgmt")[0], 0)
            self.assertEqual(self.failures(), {})

    def test_right_guess_beyond_the_limit_is_refused(self):
        self.start_limiter()
        self.count("alice", 3)
        for line, told in (("authsucc", TOLD), ("authsucc silent", ""), ("authfail", "")):
            status, text, result = self.alone(line, "alice")
            self.assertEqual((status, text), (1, told))
            self.assertIn(TRIED_TOO_OFTEN, result)
            self.assertEqual(self.failures(), {"alice": 3})

    def test_open_or_closed_without_the_daemon(self):
        for line, status, word in (("preauth", 0, ""), ("preauth fail=open", 0, ""), ("authsucc", 0, ""),
                                   ("preauth fail=closed", 1, UNAVAILABLE),
                                   ("authsucc fail=closed", 1, UNAVAILABLE)):
            with self.subTest(line=line):
                found, told, result = self.alone(line, "zoë")
                self.assertEqual(found, status)
                self.assertIn(word, result)
                self.assertEqual(told, "Logins cannot be judged now. Try again later.\n" if status
                                 else "pamtester: successfully authenticated\n")
                self.assertRegex(self.logged(), r"pam_ravod.*THE LIMITER IS AWAY \(.+\): the login of zoë is "
                                 + ("refused" if status else "judged without it"))
        status, _, result = self.alone("authfail", "zoë")
        self.assertEqual(status, 1)
        self.assertIn(DENIED, result)
        self.assertIn("does not learn how the login of zoë ended", self.logged())
        self.assertEqual(self.alone("", "zoë", "acct_mgmt")[0], 0)

    def test_names_that_hurt_the_limiter_are_refused(self):
        self.start_limiter()
        for name, shown in (("100%", "100%"), ("a\nb", "a?b"), ("x" * 1025, "x" * 200)):
            for line in ("preauth", "authfail", "authsucc"):
                with self.subTest(name=name, line=line):
                    status, _, result = self.alone(line, name)
                    self.assertEqual(status, 1)
                    self.assertIn(DENIED, result)
                    self.assertIn(f'the limiter is not asked about the name "{shown}"', self.logged())
            self.assertEqual(self.alone("", name, "acct_mgmt")[0], 0)
        self.assertEqual(self.failures(), {})
        longest = "y" * 500
        self.alone("authfail", longest)
        self.assertEqual(self.failures(), {longest: 1})

    def test_line_that_is_not_understood_is_told(self):
        self.start_limiter()
        for line, operation in (("", "authenticate"), ("fail=ajar", "authenticate"), ("preauth", "acct_mgmt"),
                                ("authfail", "acct_mgmt")):
            with self.subTest(line=line):
                self.assertIn("Error in service module", self.alone(line, "alice", operation)[2])
                self.assertIn("needs one of", self.logged())
        for word in ("fail=ajar", "exempt_group=", "preauthh", "silent=1"):
            with self.subTest(word=word):
                self.assertEqual(self.alone(f"preauth {word}", "alice")[0], 0)
                self.assertIn(f"option not understood: {word}", self.logged())

    def test_debug_tells_each_step(self):
        self.start_limiter()
        for line, words in (("preauth", "alice: not blocked"), ("authfail", "alice: failure counted"),
                            ("authsucc", "alice: failures forgotten"),
                            ("preauth known_users_only", "alice: no user that this machine knows")):
            self.alone(line, "alice")
            self.assertNotIn(words, self.logged())
            self.alone(line + " debug", "alice")
            self.assertIn(words, self.logged())


if __name__ == "__main__":
    unittest.main()
