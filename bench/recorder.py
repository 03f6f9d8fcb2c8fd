#!/usr/bin/env python3
"""Measures the recorder: finding records by time, its service, recording, starting, erasing by age.

To be run on a bus of its own (run.sh recorder). A figure is the median of its rounds, and in each round what is
compared takes turns."""
import argparse
import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
from statistics import median
from typing import NamedTuple

from measure import OthersWatch, add_extent, forget_cache
from table import add_limited, limited, write_limited

SECONDS_OF_SEGMENT = 7  # At 2.4 MB/s.
DEVICE = "Bench,1"


def run(*command):
    return subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          encoding="utf-8").stdout.strip()


class Programs:
    def __init__(self, build, folder):
        self._binaries, self._folder = os.path.abspath(os.path.join(build, "bin")), folder
        device = self.path("device.ini")
        with open(device, "w", encoding="ascii") as keys:
            keys.write("[device]\nmodel.name = Bench\nserial.number = 1\n")
        os.environ.update(DRENN_DEVICE_INFORMATION=device, DRENN_SETTINGS=self.path("settings.db"))
        os.environ.pop("DRENN_BUS", None)

    def path(self, *names):
        return os.path.join(self._folder, *names)

    def measure(self, *words):
        return json.loads(run(os.path.join(self._binaries, "calvane_recorder_bench"), *map(str, words)))

    def fill(self, name, *numbers):
        """A card, by name."""
        card = self.path(name)
        os.mkdir(card)
        run(os.path.join(self._binaries, "calvane_recorder_fill"), card, DEVICE, *map(str, numbers))
        return card

    def fill_large(self, millions):
        """So many millions of records in the audio track."""
        return self.fill(f"large{millions}", int(millions * 1_000_000) // 50, 16 << 20, 10, 20)

    def fill_spans(self, cycles):
        """Data for a second, then none for 100, so often."""
        return self.fill("spans", cycles, 16 << 20, 10, 20, 1, 100)

    def fill_segments(self, segments):
        """The records that so many segments have, without most of their payload."""
        return self.fill(f"segments{segments}", segments * SECONDS_OF_SEGMENT, 64 << 10, 1, SECONDS_OF_SEGMENT)


class Samples:
    """Figures by what they are of."""

    def __init__(self):
        self._figures = {}

    def add(self, what, figures):
        for key, figure in figures.items():
            self._figures.setdefault((what, key), []).append(figure)

    def __call__(self, what, key):
        return median(self._figures[what, key])

    def worst(self, what, key):
        return max(self._figures[what, key])


def segments_in(card):
    return sum(name != "store" for name in os.listdir(os.path.join(card, "data")))


def measure_look_ups(programs, samples, cards, rounds, calls):
    for name, card in cards.items():
        table = programs.path(name + ".table")
        programs.measure("fill-table", card, table)
        for _ in range(rounds):
            forget_cache()
            samples.add(("look-up", name), programs.measure("lookup", card, 20000))
            forget_cache()
            samples.add(("table", name), programs.measure("table", table, 20000))
    for name, card in cards.items():
        for _ in range(rounds):
            samples.add(("calls", name), programs.measure("calls", card, calls))


def measure_recording(programs, samples, rounds, seconds):
    card = programs.path("recording")
    os.mkdir(card)
    for _ in range(rounds):
        samples.add("recording", programs.measure("record", card, seconds))
        samples.add("raw", programs.measure("raw", programs.path("raw"), seconds))


def measure_coverage(programs, samples, card, seconds):
    for what, asked in (("without", 0), ("with", 1)):
        samples.add(("coverage", what), programs.measure("coverage", card, seconds, asked))


def measure_start(programs, samples, name, card, rounds, seconds):
    for _ in range(rounds):
        # So that the newest segment is a large one, which is read through.
        programs.measure("record", card, seconds)
        forget_cache()
        samples.add(("start", name), programs.measure("start", card))


def measure_retention(programs, samples, card, segments, rounds, seconds):
    # Half of what is there, and of the time, with the hours that have none.
    span = segments * SECONDS_OF_SEGMENT
    limit = (span + span // 9000 * 3600) // 2
    for number in range(rounds):
        for what, erased in (("without", 0), ("with", limit)):
            copy = programs.path("copy")
            shutil.copytree(card, copy)
            forget_cache()
            samples.add(("retention", what), programs.measure("retention", copy, seconds, erased))
            shutil.rmtree(copy)
        commits = programs.path(f"commits{number}")
        os.mkdir(commits)
        samples.add("commits", programs.measure("commits", commits, 3 * seconds))
        shutil.rmtree(commits)


def show(seconds):
    return f"{seconds * 1e6:.1f} us" if seconds < 1e-3 else f"{seconds * 1e3:.2f} ms"


def row(what, ours, theirs=None, text=show, limit=None):
    """With a ratio when there is something beside it. `limit`: of the ratio."""
    beside, ratio = ("-", "-") if theirs is None else (text(theirs), f"{ours / theirs:.2f}")
    must, met = ("-", "-") if limit is None else (f"{limit} x", limited(what, ours / theirs, limit))
    print(f"| {what} | {text(ours)} | {beside} | {ratio} | {must} | {met} |")


def print_look_ups(samples, cards):
    for name in cards:
        for key, title, limit in (("warm", "warm", 0.8), ("first", "first one after a start, cold", None),
                                  ("cold", "one of the first twenty, cold", 0.8)):
            row(f"look-up by time, {name}, {title}; index of SQLite", samples(("look-up", name), key),
                samples(("table", name), key), limit=limit)
    for name in cards:
        for key, title in (("summary", "getRecordingSummary"), ("state", "getRecordingState")):
            row(f"round trip of {title}, {name}; a plain call", samples(("calls", name), key),
                samples(("calls", name), "plain " + key), limit=1.15)


def print_table(samples, cards, starts):
    print("| what; beside what | ours | theirs | ratio | must be | met |\n|---|---:|---:|---:|---:|---|")
    print_look_ups(samples, cards)
    row("recording four tracks, share of one processor; one raw file", samples("recording", "share"),
        samples("raw", "share"), lambda share: f"{share:.2%}", limit=1.4)
    for name in starts:
        row(f"start, cold, {name}", samples(("start", name), "init"))
    commit = samples("commits", "median")
    erased = 2.2 * (samples(("retention", "with"), "before") - samples(("retention", "with"), "after"))
    row("making a second's records durable, median", commit)
    row("the same, longest", samples("commits", "longest"))
    row("longest delay of a writer, nothing is erased; one commit", samples(("retention", "without"), "longest"),
        commit)
    row(f"longest delay of a writer while {erased / 1e6:.1f} million records are erased; one commit",
        samples(("retention", "with"), "longest"), commit)
    row("the same, worst of all rounds; one commit", samples.worst(("retention", "with"), "longest"), commit)
    row("erasing them", samples(("retention", "with"), "erasing"))
    print_coverage(samples)


def print_coverage(samples):
    spans = round(samples(("coverage", "with"), "spans"), -3)  # They vary a little.
    longest = [samples.worst(("coverage", what), "longest") for what in ("with", "without")]
    what = f"worst delay of a producer while the coverage of {spans:,.0f} spans is asked for; while it is not"
    met = limited(what, longest[0] * 1e3, 5)
    print(f"| {what} | {show(longest[0])} | {show(longest[1])} | {longest[0] / longest[1]:.2f} | 5 ms | {met} |")
    running = [samples.worst(("coverage", what), "running") for what in ("with", "without")]
    row("the same without what the producer waited for a processor", *running)
    row("one answer of that", samples(("coverage", "with"), "asking"))


class Extent(NamedTuple):
    """How much is measured. A segment has 16 MiB: 4,000 of them are 64 GB."""
    rounds: int
    segments: int
    millions: tuple
    calls: int
    cycles: int
    recordings: int
    seconds: int
    retention_seconds: int


EXTENTS = {"full": Extent(5, 4000, (1, 10), 2000, 100_000, 3, 20, 6),
           "quick": Extent(3, 4000, (1, 10), 500, 100_000, 1, 10, 6),
           "smoke": Extent(1, 100, (0.02,), 20, 200, 1, 1, 1)}


def measure_all(programs, samples, extent, rounds):
    """The names of the cards that times are looked up in, and of those that the recorder is started with."""
    few = programs.fill_segments(extent.segments // 10)
    full = programs.fill_segments(extent.segments)
    names = {f"{segments_in(card):,} segments": card for card in (few, full)}
    measure_retention(programs, samples, full, extent.segments, rounds, extent.retention_seconds)
    cards = {f"{millions} million": programs.fill_large(millions) for millions in extent.millions}
    cards["full card"] = full
    measure_look_ups(programs, samples, cards, rounds, extent.calls)
    spans = programs.fill_spans(extent.cycles)
    for _ in range(rounds):
        measure_coverage(programs, samples, spans, extent.seconds)
    measure_recording(programs, samples, extent.recordings, extent.seconds)
    for name, card in names.items():
        measure_start(programs, samples, name, card, rounds, min(5, extent.seconds))
    return cards, names


def main():
    parser = argparse.ArgumentParser(prog="recorder.py", description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build")
    add_extent(parser, "fewer rounds; the figures are rougher")
    add_limited(parser)
    parser.add_argument("--rounds", type=int, help="how often to measure (5; quick: 3)")
    options = parser.parse_args()
    extent = EXTENTS[options.extent]
    rounds = options.rounds or extent.rounds
    samples, others = Samples(), OthersWatch()
    with tempfile.TemporaryDirectory(prefix="calvane-bench-", dir=os.environ.get("TMPDIR", "/var/tmp")) as folder:
        with others:
            cards, starts = measure_all(Programs(options.build, folder), samples, extent, rounds)
    print(f"{platform.system()} {platform.release()} {platform.machine()}, {os.cpu_count()} processors, medians of "
          f"{rounds} rounds; other programs used {others.share:.0%} of the machine meanwhile")
    print_table(samples, cards, starts)
    write_limited(options, others)


if __name__ == "__main__":
    sys.exit(main())
