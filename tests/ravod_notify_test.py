"""ravod-notify: what the notifier leaves in the spool, and what reaches mail, apprise and executables."""
import email
import email.policy
import json
import os
import signal
import subprocess
import unittest

from support.ravod import TIMEOUT_SECONDS, RavodTest

SETTINGS = "/etc/ravod/notify.conf"
SPOOL = "/var/spool/ravod-notify"
FOLDER = "/etc/ravod/notify.d"
HOST = "vpn.example.org"
# Tells what it was given, one line of JSON for each start; fails while DOWN is there.
PROGRAM = """#!/usr/bin/python3
import json, os, sys
with open("{told}", "a") as file:
    file.write(json.dumps([sys.argv, sys.stdin.buffer.read().decode("latin-1"), dict(os.environ)]) + "\\n")
sys.exit(os.path.exists("{down}"))
"""
# What a text holds, and how it stands in a subject and a body.
TEXTS = (
    ("plain", "plain"),
    ("-oQ/tmp -bs", "-oQ/tmp -bs"),
    ("%s%n $(id) `id` ; | & ' \"", "%s%n $(id) `id` ; | & ' \""),
    ("a\nBcc: eve@example.org\n\nb", "a\\x0aBcc: eve@example.org\\x0a\\x0ab"),
    ("a\r\nBcc: eve@example.org", "a\\x0d\\x0aBcc: eve@example.org"),
    ("\n.\nQUIT", "\\x0a.\\x0aQUIT"),
    (".", "."),
    ("=?utf-8?q?Bcc=3A?=", "=?utf-8?q?Bcc=3A?="),
    ("zoë €𝄞 \u0085", "zoë €𝄞 \\xc2\\x85"),
    (b"\xff\xfe", "\\xff\\xfe"),
    ("x" * 3000, "x" * 3000),
    ("ë" * 800, "ë" * 800),
)


class ravod_notify(RavodTest):
    def setUp(self):
        super().setUp()
        os.makedirs(SPOOL + "/new", exist_ok=True)
        os.makedirs(FOLDER, exist_ok=True)

    def settings(self, *lines):
        with open(SETTINGS, "w", encoding="utf-8") as file:
            file.write("\n".join(lines) + "\n")

    def make_program(self, path, mode=0o755):
        """A program that tells what it is given; returns the file that it tells it to, and its DOWN."""
        told, down = path.replace("/", "_"), path.replace("/", "_") + ".down"
        with open(path, "w", encoding="utf-8") as file:
            file.write(PROGRAM.format(told="/tmp/" + told, down="/tmp/" + down))
        os.chmod(path, mode)
        return "/tmp/" + told, "/tmp/" + down

    def told(self, path):
        """[(arguments, standard input, environment)] of each start."""
        if not os.path.exists(path):
            return []
        with open(path, encoding="utf-8") as file:
            return [(given[0], given[1].encode("latin-1"), given[2]) for given in map(json.loads, file)]

    def notify(self, text, level="warn", status=0):
        result = self.run_program(os.environ["NOTIFY"], "send", "-A", "A238", "-C", "C001", "-M", "0020",
                                  "-l", level, "-t", "3", "{0}", text)
        self.assertEqual(result.returncode, status, result.stderr)
        return result.stderr.decode()

    def deliver(self, status=0, *options):
        """Delivers once; returns what it complained of."""
        result = self.run_program("unshare", "--user", "--map-root-user", "--uts", "sh", "-c",
                                  f'hostname {HOST}; exec "$@"', "sh", os.environ["RAVOD_NOTIFY"],
                                  *(options or ("--once",)))
        self.assertEqual(result.returncode, status, result.stderr)
        return result.stderr.decode()

    def waiting(self):
        return sorted(name for _where, _folders, names in os.walk(SPOOL) for name in names)

    def texts_told(self, path):
        return [json.loads(given)["text"] for _arguments, given, _environment in self.told(path)]

    # --- What is left for delivery ---

    def test_nothing_is_left_unless_it_is_configured(self):
        for lines in ((), ("# mail-to root",), ("sendmail /bin/true",), ("mail-to -oQ/tmp",)):
            self.settings(*lines)
            self.notify("a")
            self.assertEqual(self.waiting(), [], lines)
        os.unlink(SETTINGS)
        self.notify("a")
        self.assertEqual(self.waiting(), [])

    def test_levels_below_the_least_are_left_out(self):
        told, _ = self.make_program(FOLDER + "/tell")
        self.settings("directory " + FOLDER, "level warn")
        for level in ("info", "warn", "error", "odd"):
            self.notify(level, level)
        self.deliver()
        self.assertEqual(self.texts_told(told), ["warn", "error"])

    def test_spool_is_bounded_and_the_file_has_what_does_not_fit(self):
        self.settings("directory " + FOLDER)
        for number in range(1000):
            with open(f"{SPOOL}/new/{number:011}", "w", encoding="utf-8"):
                pass
        self.assertIn("too many wait", self.notify("one more", status=1))
        with open("/var/log/network/notifications.jsonl", encoding="utf-8") as file:
            self.assertEqual(json.loads(file.read())["text"], "one more")
        self.deliver()
        self.assertEqual(self.waiting(), [])
        self.assertIn("too large", self.notify("x" * 70000, status=1))

    def test_missing_spool_is_told(self):
        self.settings("directory " + FOLDER)
        os.rmdir(SPOOL + "/new")
        self.assertIn("No such file", self.notify("a", status=1))

    # --- Mail ---

    def test_no_text_leaves_its_place_in_a_mail(self):
        told, _ = self.make_program("/tmp/sendmail")
        self.settings("mail-to admin@example.org", "mail-to root", "mail-from ravod@example.org",
                      "sendmail /tmp/sendmail")
        for text, _ in TEXTS:
            self.notify(text)
        self.deliver()
        mails = self.told(told)
        self.assertEqual(len(mails), len(TEXTS))
        for (_, shown), (arguments, given, _) in zip(TEXTS, mails, strict=True):
            with self.subTest(shown=shown):
                self.assertEqual(arguments, ["/tmp/sendmail", "-i", "-f", "ravod@example.org",
                                             "admin@example.org", "root"])
                self.assertLessEqual(max(map(len, given.split(b"\n"))), 998)
                mail = email.message_from_bytes(given, policy=email.policy.default)
                self.assertEqual(mail.keys(), ["From", "To", "Subject", "Date", "Message-ID",
                                               "Auto-Submitted", "MIME-Version", "Content-Type",
                                               "Content-Transfer-Encoding"])
                self.assertEqual((mail["From"], mail["To"]),
                                 ("ravod@example.org", "admin@example.org, root"))
                self.assertTrue(f"[{HOST}] warn: {shown}".startswith(mail["Subject"]), mail["Subject"])
                self.assertGreaterEqual(len(mail["Subject"].encode()), min(190, len(shown.encode())))
                self.assertEqual(mail.get_content(), shown + "\n")
                self.assertRegex(mail["Message-ID"], rf"^<ravod\.[\d.-]+@{HOST}>$")

    # --- Apprise ---

    def test_apprise_gets_texts_on_its_standard_input(self):
        told, _ = self.make_program("/tmp/apprise")
        self.settings("apprise-config /etc/ravod/apprise.conf", "apprise /tmp/apprise")
        for level in ("info", "warn", "error"):
            self.notify("--config=/tmp/evil", level)
        self.deliver()
        kinds = (("info", "info"), ("warn", "warning"), ("error", "failure"))
        self.assertEqual([(arguments, given) for arguments, given, _ in self.told(told)],
                         [(["/tmp/apprise", "--config=/etc/ravod/apprise.conf",
                            f"--title=[{HOST}] {level}", f"--notification-type={kind}",
                            "--input-format=text"], b"--config=/tmp/evil\n") for level, kind in kinds])

    # --- Executables ---

    def test_each_executable_gets_the_line_and_nothing_else(self):
        paths = [FOLDER + "/" + name for name in ("10-first", "second")]
        told = [self.make_program(path)[0] for path in paths]
        ignored = [self.make_program(FOLDER + "/" + name, mode)[0] for name, mode in
                   (("backup~", 0o755), ("third.dpkg-old", 0o755), ("plain", 0o644), ("open", 0o777))]
        self.settings("directory " + FOLDER)
        self.notify("a\nb")
        self.assertIn("open: others may change it", self.deliver())
        for path, file in zip(paths, told, strict=True):
            [(arguments, given, environment)] = self.told(file)
            self.assertEqual(arguments, [path])
            self.assertEqual(given.count(b"\n"), 1)
            line = json.loads(given)
            self.assertEqual((line["text"], line["level"], line["id"]), ("a\nb", "warn", "0020"))
            self.assertLessEqual(set(environment), {"PATH", "LC_ALL", "NOTIFICATION", "LC_CTYPE"})
        self.assertEqual([self.told(file) for file in ignored], [[]] * 4)

    # --- Order, failures and ends ---

    def test_channel_that_fails_keeps_its_order_and_others_go_on(self):
        mails, down = self.make_program("/tmp/sendmail")
        lines, _ = self.make_program(FOLDER + "/tell")
        self.settings("mail-to root", "sendmail /tmp/sendmail", "directory " + FOLDER)
        with open(down, "w", encoding="utf-8"):
            pass
        for text in ("one", "two", "three"):
            self.notify(text)
        self.assertIn("/tmp/sendmail: failed", self.deliver(1))
        self.assertEqual(self.texts_told(lines), ["one", "two", "three"])
        os.unlink(down)
        self.notify("four")
        self.deliver()
        bodies = [email.message_from_bytes(given).get_payload() for _, given, _ in self.told(mails)]
        self.assertEqual(bodies, ["one\n", "one\n", "two\n", "three\n", "four\n"])
        self.assertEqual(self.texts_told(lines), ["one", "two", "three", "four"])
        self.assertEqual(self.waiting(), [])
        self.deliver()
        self.assertEqual(len(self.told(mails)), 5)

    def make_waiting_program(self):
        """An executable that says who it is, and ends with success once it is told "up"."""
        os.mkfifo("/tmp/started")
        os.mkfifo("/tmp/go")
        with open(FOLDER + "/tell", "w", encoding="utf-8") as file:
            file.write('#!/bin/sh\necho $NOTIFICATION >/tmp/started\nread go </tmp/go\n[ "$go" = up ]\n')
        os.chmod(FOLDER + "/tell", 0o755)

    def await_program(self):
        """Returns the name of the notification that it is told of."""
        with open("/tmp/started", encoding="utf-8") as started:
            return started.read().strip()

    def answer_program(self, word):
        with open("/tmp/go", "w", encoding="utf-8") as go:
            go.write(word + "\n")

    def test_failure_is_tried_again_at_once_after_a_signal(self):
        self.make_waiting_program()
        self.settings("directory " + FOLDER, "retry-seconds 3600")
        self.notify("a")
        with subprocess.Popen([os.environ["RAVOD_NOTIFY"]], stderr=subprocess.PIPE) as running:
            self.await_program()
            self.assertIn("another one delivers", self.deliver(1))
            self.answer_program("down")
            self.assertIn(b"failed", running.stderr.readline())
            running.send_signal(signal.SIGHUP)
            self.await_program()
            self.answer_program("up")
            self.assertEqual(running.wait(TIMEOUT_SECONDS), 0)
        self.assertEqual(self.waiting(), [])

    def test_notification_whose_delivery_was_cut_off_comes_again_with_its_name(self):
        self.make_waiting_program()
        self.settings("directory " + FOLDER)
        self.notify("a")
        with subprocess.Popen([os.environ["RAVOD_NOTIFY"]]) as running:
            name = self.await_program()
            running.kill()
        self.answer_program("up")
        self.assertEqual(self.waiting(), [name])
        with subprocess.Popen([os.environ["RAVOD_NOTIFY"]]) as running:
            self.assertEqual(self.await_program(), name)
            self.answer_program("up")
            self.assertEqual(running.wait(TIMEOUT_SECONDS), 0)
        self.assertEqual(self.waiting(), [])

    def test_what_fails_for_too_long_is_given_up(self):
        told, down = self.make_program(FOLDER + "/tell")
        self.settings("directory " + FOLDER, "give-up-hours 1")
        for path in (down, SPOOL + "/new/00000000001.000000000-1"):
            with open(path, "w", encoding="utf-8") as file:
                file.write('{"time":1,"level":"warn","text":"old\\n"}\n')
        self.notify("new")
        self.assertIn("given up: old\\x0a", self.deliver(1))
        self.assertEqual(self.texts_told(told), ["old\n", "new"])
        self.assertEqual(len(self.waiting()), 1)

    def test_what_is_no_notification_is_removed(self):
        told, _ = self.make_program(FOLDER + "/tell")
        self.settings("directory " + FOLDER)
        for name, text in (("1", ""), ("2", "{"), ("3", "[]"), ("4", "x" * 70000)):
            with open(f"{SPOOL}/new/{name}", "w", encoding="utf-8") as file:
                file.write(text)
        with open(SPOOL + "/new/8\nBcc: mallory", "w", encoding="utf-8") as file:
            json.dump({"time": 1, "level": "warn", "text": "of a name that no notifier gives"}, file)
        os.mkfifo(SPOOL + "/new/5")
        os.symlink("/etc/passwd", SPOOL + "/new/6")
        os.makedirs(SPOOL + "/new/7/8")
        self.notify("a")
        self.deliver()
        self.assertEqual((self.waiting(), self.texts_told(told)), ([], ["a"]))

    def test_queue_of_a_channel_that_is_gone_is_removed(self):
        _, down = self.make_program("/tmp/sendmail")
        with open(down, "w", encoding="utf-8"):
            pass
        self.settings("mail-to root", "sendmail /tmp/sendmail")
        self.notify("a")
        self.deliver(1)
        self.settings("directory " + FOLDER)
        self.assertIn("mail is no longer configured: 1 lost", self.deliver())
        self.assertEqual(self.waiting(), [])

    def test_settings_that_are_not_understood_are_told(self):
        lines = ("mail-to -oQ/tmp", "mail-to a@b,c@d", "mail-to a b", "sendmail mail", "level loud",
                 "retry-seconds 0", "give-up-hours x", "other 1")
        self.settings(*lines)
        told = self.deliver()
        for line in lines:
            self.assertIn(f"{SETTINGS}: not understood: {line}\n", told)

    def test_wrong_usage(self):
        self.assertIn("usage:", self.deliver(2, "--twice"))


if __name__ == "__main__":
    unittest.main()
