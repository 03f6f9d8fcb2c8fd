#!/usr/bin/env python3
"""Sets the recording store beside other ways to keep records, on one device and with the same input.

Each candidate gets a freshly made ext4 on the same loop device, which goes past the page cache of the file system
below it. What a candidate writes and how often it flushes is what the device has counted. In each round every
candidate appends once; a figure is the median of its rounds."""
import argparse
import contextlib
import json
import os
import platform
import subprocess
import sys
import tempfile
from statistics import median

from measure import OthersWatch, add_extent, forget_cache, settle
from table import add_limited, limited, write_limited

MIB = 1024 * 1024
NAMES = {"raw": "raw append", "store": "this store", "sqlite": "SQLite blobs", "lmdb": "LMDB", "rocksdb": "RocksDB",
         "rocksdb-blobs": "RocksDB, blob files"}
LEFT_OUT = {"lmdb": "liblmdb-dev", "rocksdb": "librocksdb-dev"}


def run(*command):
    return subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8").stdout.strip()


class Device:
    """A loop device with direct I/O over a file that has all its blocks, and where it is mounted."""

    def __init__(self, folder, mebibytes):
        self._image, self.folder = os.path.join(folder, "image"), os.path.join(folder, "mounted")
        os.mkdir(self.folder)
        self._mebibytes, self._loop = mebibytes, None

    def __enter__(self):
        with open(self._image, "wb") as image:
            for _ in range(self._mebibytes):
                image.write(bytes(MIB))
        self._loop = run("losetup", "--direct-io=on", "--find", "--show", self._image)
        return self

    def __exit__(self, *_):
        self.unmount()
        run("losetup", "--detach", self._loop)

    def unmount(self):
        if os.path.ismount(self.folder):
            run("umount", self.folder)

    def renew(self):
        """A fresh, mounted file system. The blocks below stay where they are."""
        self.unmount()
        run("mkfs.ext4", "-q", "-F", "-E", "nodiscard,lazy_itable_init=0,lazy_journal_init=0", self._loop)
        run("mount", self._loop, self.folder)
        run("sync", "--file-system", self.folder)

    def counters(self):
        """Bytes written, flushes."""
        with open(f"/sys/block/{os.path.basename(self._loop)}/stat", encoding="ascii") as stat:
            figures = [int(word) for word in stat.read().split()]
        return figures[6] * 512, figures[15]


class Candidates:
    def __init__(self, program, device, seconds):
        self._program, self._device, self._seconds = program, device, str(seconds)

    def names(self):
        return run(self._program, "peers").split()

    def measure(self, names, rounds):
        """All figures of each candidate."""
        samples = {name: [] for name in names}
        for _ in range(rounds):
            for name in names:
                samples[name].append({**self._append(name), **self._read(name)})
        return {name: {key: median(each[key] for each in runs) for key in runs[-1]}
                for name, runs in samples.items()}

    def _append(self, name):
        """On a fresh file system."""
        self._device.renew()
        settle()
        bytes_before, flushes_before = self._device.counters()
        append = self._bench("append", name, self._seconds)
        run("sync", "--file-system", self._device.folder)
        bytes_after, flushes_after = self._device.counters()
        return {"MB/s": append["payload"] / append["seconds"] / 1e6,
                "bytes": (bytes_after - bytes_before) / append["payload"],
                "flushes": flushes_after - flushes_before,
                "median": append["median"], "p99": append["p99"], "rss": append["rss"] / 1024,
                "payload": append["payload"]}

    def _read(self, name):
        """What was appended last."""
        forget_cache()
        read = self._bench("read", name, self._seconds)
        figures = {"read": read["payload"] / read["seconds"] / 1e6}
        if name != "raw":
            forget_cache()
            figures["cold"] = self._bench("lookup", name, self._seconds, "2000")["first"] / 1e3
            count = str(800 * int(self._seconds))
            figures["warm"] = self._bench("lookup", name, self._seconds, count)["again"] / 1e3
        return figures

    def _bench(self, verb, name, *rest):
        return json.loads(run(self._program, verb, name, self._device.folder, *rest))


COLUMNS = [("append, MB/s", "MB/s", 0), ("device bytes per payload byte", "bytes", 3), ("flushes", "flushes", 0),
           ("commit median, ms", "median", 2), ("commit p99, ms", "p99", 2), ("read all, MB/s", "read", 0),
           ("header cold, us", "cold", 1), ("header warm, us", "warm", 2), ("memory, MiB", "rss", 0)]


def print_candidates(figures):
    print("| candidate | " + " | ".join(title for title, _key, _digits in COLUMNS) + " |")
    print("|---|" + "---:|" * len(COLUMNS))
    for name, row in figures.items():
        cells = (f"{row[key]:.{digits}f}" if key in row else "-" for _title, key, digits in COLUMNS)
        print(f"| {NAMES[name]} | " + " | ".join(cells) + " |")


def target(what, figure, limit, at_least=False):
    digits = 3 if limit < 2 else 1
    print(f"| {what} | {figure:.{digits}f} | {'at least' if at_least else 'at most'} {limit} |"
          f" {limited(what, figure, limit, at_least)} |")


def print_targets(figures, openings):
    store, raw, sqlite = (figures[name] for name in ("store", "raw", "sqlite"))
    print("\n| target | measured | wanted | met |\n|---|---:|---:|---|")
    target("append; of raw", store["MB/s"] / raw["MB/s"], 0.9, at_least=True)
    target("device bytes per payload byte", store["bytes"], 1.03)
    target("flushes; of raw", store["flushes"] / raw["flushes"], 1.1)
    target("read all; of raw", store["read"] / raw["read"], 0.8, at_least=True)
    target("header warm; times faster than SQLite", sqlite["warm"] / store["warm"], 3, at_least=True)
    target("header cold; times faster than SQLite", sqlite["cold"] / store["cold"], 3, at_least=True)
    for row in openings:
        millions = f"{row['records'] / 1e6:.0f} million records"
        target(f"open, ms, {millions}", row["open"], 100)
        target(f"heap, open and read from, MiB, {millions}", row["heap_read"] / 1024, 16)
        target(f"erase the first half, ms, {millions}", row["erase"], 20)


def print_openings(rows):
    print("\n| records | open, ms | heap open, MiB | heap read from, MiB | most memory, MiB | header at random, us | erase half, ms |")
    print("|---:|---:|---:|---:|---:|---:|---:|")
    for row in rows:
        print(f"| {row['records']:,} | {row['open']:.1f} | {row['heap_open'] / 1024:.2f} | {row['heap_read'] / 1024:.2f} |"
              f" {row['peak'] / 1024:.1f} | {row['lookup'] / 1e3:.2f} | {row['erase']:.1f} |")


def measure_openings(program, folder, millions):
    """One store for each number of records; opened with nothing in the page cache."""
    rows = []
    for count in millions:
        with tempfile.TemporaryDirectory(dir=folder) as here:
            run(program, "fill", here, str(int(count * 1_000_000)))
            forget_cache()
            rows.append(json.loads(run(program, "open", here)))
    return rows


def main():
    parser = argparse.ArgumentParser(prog="store.py", description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build")
    add_extent(parser, "300 MB instead of 600, and at most 10 million records")
    add_limited(parser)
    parser.add_argument("--rounds", type=int, help="how often to append (5; quick: 3)")
    parser.add_argument("--only", help="candidates, with commas between them")
    parser.add_argument("--no-opening", action="store_true", help="leave out the large stores")
    options = parser.parse_args()
    program = os.path.abspath(os.path.join(options.build, "bin/calvane_store_bench"))
    if os.geteuid() != 0:
        sys.exit("bench: only root may make loop devices and file systems; run this as root")
    mebibytes, seconds, usual_rounds, millions = {
        "full": (2500, 250, 5, (1, 10, 50)), "quick": (2500, 130, 3, (1, 10)), "smoke": (200, 5, 1, (0.01,))}[options.extent]

    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="calvane-bench-",
                                                                 dir=os.environ.get("TMPDIR", "/var/tmp")))
        try:
            device = stack.enter_context(Device(folder, mebibytes))
        except (OSError, subprocess.CalledProcessError) as error:
            sys.exit(f"bench: there is no loop device with direct I/O to be had: {error}")
        others = OthersWatch()
        with others:
            candidates = Candidates(program, device, seconds)
            names = candidates.names()
            for name, package in LEFT_OUT.items():
                if name not in names:
                    print(f"{NAMES[name]} is left out: {package} was not there when this was built.")
            print("MCAP is left out: Debian 12 has no library for it.")
            wanted = options.only.split(",") if options.only else names
            rounds = options.rounds or usual_rounds
            figures = candidates.measure([name for name in names if name in wanted], rounds)
            openings = [] if options.no_opening else measure_openings(program, folder, millions)
        print(f"{platform.system()} {platform.release()} {platform.machine()}, {os.cpu_count()} processors, "
              f"medians of {rounds} rounds, {seconds} seconds of recording, {next(iter(figures.values()))['payload'] / 1e6:.0f} MB; "
              f"other programs used {others.share:.0%} of the machine meanwhile")
        print_candidates(figures)
        if openings:
            print_openings(openings)
        if {"raw", "store", "sqlite"} <= figures.keys():
            print_targets(figures, openings)
        write_limited(options, others)


if __name__ == "__main__":
    sys.exit(main())
