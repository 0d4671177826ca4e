"""Measuring in turns, and the lines of the results, as bench_support.h does both for the programs in
C++: for the benchmarks in Python, the table and the plots."""
import os
import time
from typing import NamedTuple


class Line(NamedTuple):
    """One comparison. Times in microseconds, unless the unit is another one; the ratio is ours over the other, round by round, and
    at_most its goal, 0 for none. low and high are the tenths at both ends."""

    what: str
    state: str
    other: str
    ours: float
    theirs: float
    ratio: float
    ratio_low: float
    ratio_high: float
    at_most: float
    ours_low: float = 0
    ours_high: float = 0
    theirs_low: float = 0
    theirs_high: float = 0
    unit: str = "us"

    @property
    def verdict(self):
        if self.at_most == 0:
            return ""
        return "met" if self.ratio <= self.at_most else "MISSED"


class NotMeasured(NamedTuple):
    """A comparison that could not be made here, and why."""

    what: str
    state: str
    other: str
    reason: str


def parse(text):
    """One line of the file that BENCH_RESULTS names."""
    fields = text.rstrip("\n").split("\t")
    if len(fields) == len(NotMeasured._fields):
        return NotMeasured(*fields)
    return Line(*fields[:3], *(float(field) for field in fields[3:13]), *fields[13:])


def read(path):
    with open(path, encoding="utf-8") as file:
        return [parse(text) for text in file]


def _report(line, shown):
    print(f"{line.what:<22} {line.state:<30} {shown}", flush=True)
    if "BENCH_RESULTS" in os.environ:
        with open(os.environ["BENCH_RESULTS"], "a", encoding="utf-8") as file:
            print(*line, sep="\t", file=file)


def report(line):
    goal = f"  goal {line.at_most:.2f} {line.verdict}" if line.at_most else ""
    _report(line, f"{line.ours:10.1f} us  {line.other:<28} {line.theirs:10.1f} us  ratio "
                  f"{line.ratio:6.3f} ({line.ratio_low:.3f} to {line.ratio_high:.3f}){goal}")


def report_not_measured(what, state, other, reason):
    _report(NotMeasured(what, state, other, reason), f"NOT MEASURED against {other}: {reason}")


def quantile(values, tenths):
    return sorted(values)[tenths * (len(values) - 1) // 10]


def repeated(times, work):
    """A measurement: the microseconds that the work takes, on average of so many times."""
    def sample():
        start = time.perf_counter_ns()
        for _ in range(times):
            work()
        return (time.perf_counter_ns() - start) / 1000 / times
    return sample


class Opponent(NamedTuple):
    name: str
    measure: object
    at_most: float = 0


def compare(what, state, rounds, ours, opponents):
    """All sides in turn, in an order that rotates, after one round that does not count."""
    sides = [ours] + [each.measure for each in opponents]
    times = [[] for _ in sides]
    for round_number in range(rounds + 1):
        for turn in range(len(sides)):
            side = (turn + round_number) % len(sides)
            spent = sides[side]()
            if round_number > 0:
                times[side].append(spent)
    mine = [quantile(times[0], tenths) for tenths in (5, 1, 9)]
    for opponent, spent in zip(opponents, times[1:]):
        theirs = [quantile(spent, tenths) for tenths in (5, 1, 9)]
        ratio = [a / b for a, b in zip(times[0], spent)]
        report(Line(what, state, opponent.name, mine[0], theirs[0],
                    *(quantile(ratio, tenths) for tenths in (5, 1, 9)), opponent.at_most,
                    *mine[1:], *theirs[1:]))
