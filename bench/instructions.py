#!/usr/bin/env python3
"""Counts instructions on x86-64 and on 32-bit ARM, ours and those of other programs, in user-mode emulators.

What a program takes for one buffer, record or call is the slope between runs of two lengths, so that its start does not
count. Nothing that the kernel does is counted. To be run on a bus of its own (run.sh arm)."""
import argparse
import glob
import os
import shutil
import subprocess
import sys
import tempfile
from statistics import median
from typing import NamedTuple

import gstreamer
from files import DESCRIPTION
from measure import Failure, add_extent
from recorder import Programs
from table import decimals

MOST_WORSE = 4 / 3  # Of the ratio on ARM beside that on x86-64.
QUEUE = "! queue max-size-buffers={} "


class Machine:
    """The programs of one architecture, and the emulator that counts their instructions."""

    def __init__(self, emulator, build, root, plugin):
        self._emulator, self._plugin, self._root = emulator, os.path.abspath(plugin), root
        self._binaries = os.path.abspath(os.path.join(build, "bin"))
        self._processor = min(os.sched_getaffinity(0))

    def ours(self, program, *words):
        return [os.path.join(self._binaries, program), *map(str, words)]

    def theirs(self, program, *words):
        for folder in ("usr/bin", "bin"):
            path = os.path.join(self._root, folder, program)
            if os.path.exists(path):
                return [path, *map(str, words)]
        raise Failure(f"there is no {program} in {self._root}")

    def count(self, command, folder):
        """Instructions of one run, in all threads."""
        figure = os.path.join(folder, "instructions")
        environment = {**os.environ, "GST_REGISTRY": os.path.join(folder, "registry" + self._emulator[0]),
                       "GST_REGISTRY_FORK": "no",
                       "GST_PLUGIN_SYSTEM_PATH": ":".join(glob.glob(os.path.join(self._root, "usr/lib/*/gstreamer-1.0")))}
        # On one processor, where no thread spins while it waits for another one.
        prefix = ["taskset", "--cpu-list", str(self._processor), *self._emulator, "-plugin", f"{self._plugin},out={figure}"]
        ran = subprocess.run([*prefix, *command], check=False, env=environment, stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, encoding="utf-8")
        if ran.returncode != 0:
            raise Failure(f"{os.path.basename(command[0])} ended with status {ran.returncode}: {ran.stderr[-300:]}")
        with open(figure, encoding="ascii") as file:
            return int(file.read())


class Counts:
    """Instructions of a machine's programs for one buffer, record or call."""

    def __init__(self, machine, folder, extent, card, table):
        self._machine, self._folder, self._share, self._rounds = machine, folder, extent.share, extent.rounds
        self._card, self._table = card, table
        self._known, self._has_registry = {}, False

    def path(self, path, number):
        return self._slope((path, number), 20000,
                           lambda count: self._machine.ours("calvane_paths", path, number, count), rounds=3)

    def line(self, line):
        command = lambda count: self._machine.theirs("gst-launch-1.0", "-q", *(gstreamer.source(count) + line).split())
        if not self._has_registry:
            self._machine.count(command(1), self._folder)  # The first run of all looks for its plugins.
            self._has_registry = True
        return self._slope(line, 5000, command, rounds=3)

    def copy(self, program, block):
        return self._slope((program, block), 2000, lambda count: self._copy(program, block, count))

    def store(self, verb, peer):
        return self._slope((verb, peer), 5, lambda count: self._machine.ours(
            "calvane_store_bench", verb, peer, self._records(verb, peer, count), count))

    def recorder(self, verb, target, count, *words):
        target = {"card": self._card, "table": self._table}.get(target) or self._empty(target, verb == "record")
        return self._slope((verb, *words), count, lambda count: self._machine.ours(
            "calvane_recorder_bench", verb, target, count, *words))

    def _slope(self, what, count, command, rounds=1):
        if what not in self._known:
            low = max(1, count // self._share)
            rounds = min(rounds, self._rounds)
            runs = [[self._machine.count(command(count), self._folder) for count in (low, 3 * low)] for _ in range(rounds)]
            self._known[what] = median(long - short for short, long in runs) / (2 * low)
        return self._known[what]

    def _empty(self, name, is_folder):
        path = os.path.join(self._folder, name)
        if os.path.isdir(path):
            shutil.rmtree(path)
        if is_folder:
            os.mkdir(path)
        return path

    def _copy(self, program, block, count):
        source, target, description = (os.path.join(self._folder, name) for name in ("source", "target", "copy.ini"))
        with open(source, "wb") as file:
            file.truncate(block * count)
        with open(description, "w", encoding="utf-8") as file:
            file.write(DESCRIPTION.format(source=source, target=target, block=block))
        if program == "calvane":
            return self._machine.ours("calvane", "run", description)
        if program == "dd":
            return self._machine.theirs("dd", f"if={source}", f"of={target}", f"bs={block}", "status=none")
        return self._machine.theirs("gst-launch-1.0", "-q", "filesrc", f"location={source}", f"blocksize={block}",
                                    "!", "filesink", f"location={target}")

    def _records(self, verb, peer, seconds):
        folder = self._empty(f"records {peer}", True)
        if verb == "read":
            command = self._machine.ours("calvane_store_bench", "append", peer, folder, seconds)
            self._machine.count(command, self._folder)
        return folder


def extra_lines(queues):
    return lambda c: c.line(queues + gstreamer.SINK) - c.line(gstreamer.SINK)


ROWS = [
    ("one pass-through plugin, in a chain of ten; identity",
     lambda c: (c.path("pass", 10) - c.path("pass", 0)) / 10,
     lambda c: (c.line(gstreamer.identities(10)) - c.line(gstreamer.SINK)) / 10),
    ("generate, push, consume; fakesrc ! fakesink", lambda c: c.path("pass", 0), lambda c: c.line(gstreamer.SINK)),
    ("fan-out to three sinks, whole path; tee", lambda c: c.path("fan", 3), lambda c: c.line(gstreamer.tee(3))),
    *((f"queue hand-off, extra, {depth} on the way; queue",
       lambda c, depth=depth: c.path("queue", depth) - c.path("pass", 0), extra_lines(QUEUE.format(depth)))
      for depth in (5, 200)),
    *((f"{count} queues in a row, extra; as many queue",
       lambda c, count=count: c.path("queues", count) - c.path("pass", 0), extra_lines(QUEUE.format(200) * count))
      for count in (2, 4, 8)),
    *((f"file to file, {block // 1024} KiB blocks, a block; {peer}",
       lambda c, block=block: c.copy("calvane", block), lambda c, block=block, peer=peer: c.copy(peer, block))
      for block in (65536, 1024) for peer in ("dd", "filesrc ! filesink")),
    *((f"{title} four tracks, a second; {beside}",
       lambda c, verb=verb: c.store(verb, "store"), lambda c, verb=verb, peer=peer: c.store(verb, peer))
      for verb, title in (("append", "appending"), ("read", "reading back"))
      for peer, beside in (("raw", "one raw file"), ("sqlite", "SQLite"))),
    ("recording four tracks, a second; one raw file", lambda c: c.recorder("record", "recording", 3),
     lambda c: c.recorder("raw", "raw", 3)),
    ("look-up by time, 1 million records; index of SQLite", lambda c: c.recorder("lookup", "card", 2000) / 2,
     lambda c: c.recorder("table", "table", 2000) / 2),
    ("getRecordingState, client and service; a plain call",
     lambda c: c.recorder("ask", "card", 300, "recording_information"), lambda c: c.recorder("ask", "card", 300, "plain")),
]


class Extent(NamedTuple):
    share: int  # The counts are divided by it.
    rounds: int  # Of what threads do together, which is not the same each time.
    millions: float  # Of records.
    rows: list


EXTENTS = {"full": Extent(1, 3, 1, ROWS), "quick": Extent(4, 3, 1, ROWS), "smoke": Extent(200, 1, 0.02, ROWS[2::4])}


def show(figure):
    return f"{figure:,.{decimals(figure)}f}"


def print_row(what, ours, theirs, counts):
    try:
        figures = [(ours(each), theirs(each)) for each in counts]
    except Failure as failure:
        print(f"| {what} | failed: {failure} | - | - | - | - | - | - | NO |", flush=True)
        return False
    ratios = [left / right for left, right in figures]
    is_met = ratios[1] <= max(0, ratios[0]) * MOST_WORSE
    cells = [f"{show(left)} | {show(right)} | {ratio:.2f}" for (left, right), ratio in zip(figures, ratios)]
    print(f"| {what} | {' | '.join(cells)} | {ratios[1] / ratios[0]:.2f} | {'yes' if is_met else 'NO'} |", flush=True)
    return True


def main():
    parser = argparse.ArgumentParser(prog="instructions.py", description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build for x86-64")
    parser.add_argument("--arm-build", default="build/armhf", help="folder of the build for ARM")
    parser.add_argument("--arm-root", default="build/sysroot-armhf", help="folder of ARM's libraries and other programs")
    add_extent(parser, "shorter runs; the figures are rougher")
    options = parser.parse_args()
    extent = EXTENTS[options.extent]
    root, plugin = os.path.abspath(options.arm_root), os.path.join(options.build, "lib", "count_instructions.so")
    machines = [Machine(["qemu-x86_64", "-cpu", "max,-erms,-fsrm"], options.build, "/", plugin),
                Machine(["qemu-arm", "-cpu", "cortex-a7", "-L", root], options.arm_build, root, plugin)]
    print("| what; beside what | x86-64: ours | theirs | ratio | ARM: ours | theirs | ratio | ARM's ratio beside x86-64's |"
          f" at most {MOST_WORSE:.2f} |\n|---|---:|---:|---:|---:|---:|---:|---:|---|", flush=True)
    with tempfile.TemporaryDirectory(prefix="calvane-bench-", dir=os.environ.get("TMPDIR", "/var/tmp")) as folder:
        programs = Programs(options.build, folder)
        card, table = programs.fill_large(extent.millions), programs.path("table")
        programs.measure("fill-table", card, table)
        counts = [Counts(machine, folder, extent, card, table) for machine in machines]
        have_run = [print_row(*row, counts) for row in extent.rows]
    return 0 if all(have_run) else 1


if __name__ == "__main__":
    sys.exit(main())
