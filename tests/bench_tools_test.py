#!/usr/bin/python3
"""What the benchmarks' results are shown with: the table, the plots, the list of subjects."""
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as xml
from pathlib import Path

top = Path(__file__).resolve().parent.parent
svg = "{http://www.w3.org/2000/svg}"

# what, state, other, ours, theirs, ratio with its tenths, goal, tenths of ours and of theirs, unit
compared = ["record\ttmpfs\tFreeRADIUS\t98.4\t374\t0.263\t0.2\t0.3\t1\t90\t110\t360\t400",
            "record\ttmpfs\trsyslog\t98.4\t29.3\t3.358\t3\t4\t1\t90\t110\t28\t31",
            "record\ttmpfs\tsqlite3\t98.4\t1941\t0.05\t0.04\t0.06\t0\t90\t110\t1900\t2000",
            "peak\tlisting\tthe reply\t1040.3\t496.1\t2.097\t2\t2.2\t2.05\t1\t1\t1\t1\tMiB"]
not_measured = "block\ttmpfs\tfail2ban\tthere is no fail2ban-server here"


def sized(what, noun, ours, floor):
    return [f"size: {what}\t{rows} {noun}\tfloor\t{a}\t{b}\t1\t1\t1\t0\t{a * .9}\t{a * 1.1}\t{b * .9}"
            f"\t{b * 1.1}" for rows, a, b in zip((0, 10, 100, 1000), ours, floor)]


class bench_tools(unittest.TestCase):
    def setUp(self):
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def run_tool(self, name, lines, target):
        results = self.folder / "lines"
        results.write_text("".join(line + "\n" for line in lines))
        return subprocess.run([top / "bench" / name, results, target], check=True,
                              capture_output=True, text=True).stdout

    def test_table_has_every_comparison_and_every_gap(self):
        shown = self.run_tool("table", compared + [not_measured], self.folder / "table.md")
        self.assertIn("5 comparisons: 1 goals met, 2 missed, 1 not measured.", shown)
        markdown = (self.folder / "table.md").read_text()
        rows = [[cell.strip() for cell in line.split("|")[1:-1]]
                for line in markdown.splitlines() if line.startswith("| ")]
        self.assertEqual([(row[3], row[4], row[-1]) for row in rows[1:]], [
            ("FreeRADIUS", "374 µs", "met"), ("rsyslog", "29.3 µs", "MISSED"),
            ("sqlite3", "1.94 ms", ""), ("the reply", "496.1 MiB", "MISSED"),
            ("fail2ban", "NOT MEASURED", "")])
        self.assertEqual(rows[5][5], "there is no fail2ban-server here")

    def draw(self, lines):
        self.run_tool("plot", lines, self.folder)
        return {file.stem: xml.parse(file).getroot() for file in self.folder.glob("*.svg")}

    def test_plot_is_drawn_for_each_operation_with_sizes(self):
        drawn = self.draw(compared + sized("page of 20 rows", "rows", (90, 100, 150, 400), (80, 90, 140, 390))
                          + sized("check", "users", (200, 210, 300, 900), (60, 70, 100, 500)))
        self.assertEqual(set(drawn), {"page-of-20-rows", "check"})
        texts = [each.text for each in drawn["check"].iter(svg + "text")]
        for expected in ("Checking a user", "users in the table", "0", "1,000", "100 µs", "1 ms"):
            self.assertIn(expected, texts)

    def test_plot_keeps_everything_within_its_bounds(self):
        root = self.draw(sized("check", "users", (3, 40, 500, 6000), (1, 2, 3, 4)))["check"]
        width, height = float(root.get("width")), float(root.get("height"))
        points = [(float(each.get("cx")), float(each.get("cy"))) for each in root.iter(svg + "circle")]
        self.assertEqual(len(points), 8)
        for x, y in points:
            self.assertTrue(0 < x < width and 0 < y < height, (x, y))

    def test_plot_names_of_lines_that_meet_stand_apart(self):
        root = self.draw(sized("check", "users", (200, 210, 300, 900), (60, 70, 100, 899)))["check"]
        heights = {each.text: float(each.get("y")) for each in root.iter(svg + "text")
                   if each.text in ("ravod", "SQLite alone")}
        self.assertGreaterEqual(heights["SQLite alone"] - heights["ravod"], 16)

    def test_help_lists_every_program(self):
        shown = subprocess.run([top / "bench/run", "--help"], check=True, capture_output=True,
                               text=True).stdout.split()
        subjects = {file.name.partition("_bench.")[0] for file in (top / "bench").glob("*_bench.*")}
        self.assertIn("size", subjects)
        self.assertLessEqual(subjects, set(shown))


if __name__ == "__main__":
    unittest.main()
