"""The page of ravoctl report, as a browser (headless Chromium) understands it."""
import os
import subprocess
import time
import unittest
import zlib
from html.parser import HTMLParser

from support.ravod import RavodTest

PAGE = "/tmp/report.html"
HOSTILE = [
    '<script>document.title="taken"</script>',
    '"><img src=http://10.0.0.1/x onerror=document.title=1>',
    "</text></svg><iframe src=//10.0.0.1>",
    "&lt;b&gt; 'quoted' ]]><!--",
    "\u202ereversed \u05d0 \u4e2d",
]


class Elements(HTMLParser):
    """The elements of a page in their order, and its texts."""

    def __init__(self, text):
        super().__init__()
        self.names = []
        self.attributes = []
        self.texts = []
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        self.names.append(tag)
        self.attributes += [name for name, _ in attrs]

    def handle_data(self, data):
        self.texts.append(data)


def first_pixel(file):
    """Red, green and blue of the upper left corner of a PNG of 8 bits a channel."""
    with open(file, "rb") as image:
        content = image.read()
    data, place = b"", 8
    while place < len(content):
        length, kind = int.from_bytes(content[place:place + 4]), content[place + 4:place + 8]
        if kind == b"IDAT":
            data += content[place + 8:place + 8 + length]
        place += 12 + length
    return tuple(zlib.decompress(data)[1:4])  # no filter changes the first pixel


class report_page(RavodTest):
    def setUp(self):
        super().setUp()
        self.start(os.environ["RAVOD"])
        now = int(time.time())
        for n, user in enumerate(HOSTILE):
            self.record(username=user, action=1, time=now - 3000, source_ip=f"10.1.0.{n}")
            if n % 2 == 0:
                self.record(username=user, action=2 + n % 3 // 2, time=now - 1000, uptime=2000,
                            source_ip=f"10.1.0.{n}", rx_total=5000, tx_total=1000, device_info=user)
        subprocess.run([os.environ["RAVOCTL"], "report", "--html", PAGE, "-S", "-1d"], check=True)

    def record(self, **fields):
        words = [f"{name}={value}" for name, value in {"vpn_type": 4, **fields}.items()]
        subprocess.run([os.environ["RAVOCTL"], "sessions", "add", *words], check=True)

    def browse(self, *what):
        """What the browser says of the page. It is alone in a throw-away root, so its own sandbox
        is not needed; there is no network."""
        run = subprocess.run(
            [os.environ["CHROMIUM"], "--headless", "--no-sandbox", "--disable-gpu",
             "--no-first-run", "--user-data-dir=/tmp/browser", *what, "file://" + PAGE],
            capture_output=True, timeout=50)
        self.assertEqual(run.returncode, 0, run.stderr)
        return run.stdout.decode()

    def test_browser_sees_the_elements_that_were_written_and_records_as_text(self):
        with open(PAGE, encoding="utf-8") as file:
            written = Elements(file.read())
        seen = Elements(self.browse("--dump-dom"))
        self.assertEqual(seen.names, written.names, "nothing to repair, and nothing executed")
        self.assertIn("VPN sessions", seen.texts)
        for user in HOSTILE[:4]:
            self.assertTrue(any(user in text for text in seen.texts), user)
        for name in ("script", "img", "iframe", "link", "object", "embed", "a"):
            self.assertNotIn(name, seen.names)
        for name in ("src", "href", "onerror", "onload", "onclick"):
            self.assertNotIn(name, seen.attributes)

    def test_page_prints(self):
        self.browse("--print-to-pdf=/tmp/report.pdf")
        with open("/tmp/report.pdf", "rb") as file:
            self.assertEqual(file.read(5), b"%PDF-")

    def test_page_is_dark_where_that_is_preferred(self):
        brightness = []
        for scheme in (0, 1):  # dark, light
            self.browse("--screenshot=/tmp/report.png", "--window-size=400,300",
                        f"--blink-settings=preferredColorScheme={scheme}")
            brightness.append(sum(first_pixel("/tmp/report.png")))
        self.assertLess(brightness[0], 200)
        self.assertGreater(brightness[1], 600)


if __name__ == "__main__":
    unittest.main()
