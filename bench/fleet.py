#!/usr/bin/env python3
"""Measures the copy of recordings in the streams of a fleet: the uplink's link beside the C client's own asynchronous publishing,
and how soon the first byte of an export comes from a long stream. Servers on loopback; "theirs" of the latter is the limit."""
import argparse
import os
import subprocess
import sys
import time
from statistics import median

from table import print_table

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(1, os.path.join(ROOT, "tests", "fleet"))
from nats_cluster import Cluster  # noqa: E402

BEGIN, INTERVAL = 1795000000.0, 0.02  # Of the records that bench_fleet_publish sends.
FIRST_BYTE_MS = 50


class Bench:
    def __init__(self, build, cluster):
        self.build, self.cluster, self.number = build, cluster, 0

    def program(self, name):
        return os.path.join(self.build, "bin", name)

    def make(self, device):
        with self.cluster.client() as client:
            client.api(f"STREAM.CREATE.calvane_{device}",
                       {"name": f"calvane_{device}", "subjects": [f"calvane.{device}.>"], "storage": "file",
                        "num_replicas": len(self.cluster.servers), "allow_direct": True})

    def delete(self, device):
        with self.cluster.client() as client:
            client.api(f"STREAM.DELETE.calvane_{device}")

    def publish(self, how, device, messages, size):
        """Seconds, and seconds of processors."""
        out = subprocess.run([self.program("bench_fleet_publish"), how, self.cluster.servers[0].url, device, str(messages), str(size)],
                             check=True, stdout=subprocess.PIPE, encoding="ascii").stdout
        return tuple(float(word) for word in out.split())

    def side_by_side(self, messages, size, rounds):
        figures = {"link": [], "client": []}
        for _ in range(rounds):
            for how, found in figures.items():
                self.number += 1
                device = f"bench{self.number}"
                self.make(device)
                found.append(self.publish(how, device, messages, size))
                self.delete(device)
        return [[median(figure[place] for figure in figures[how]) for how in ("link", "client")] for place in (0, 1)]

    def first_byte(self, device, messages, rounds):
        """Milliseconds from the start of the program less what starting it takes, for times all over the stream."""
        found, starts = [], []
        for number in range(rounds):
            begin = BEGIN + INTERVAL * messages * (number + 0.5) / rounds
            start = time.monotonic()
            with subprocess.Popen([self.program("calvane-fleet"), "--server", self.cluster.servers[0].url, "export", "--device", device,
                                   "--from", f"@{begin:.3f}", "--to", f"@{begin + 60:.3f}", "-"], stdout=subprocess.PIPE) as export:
                if not export.stdout.read(1):
                    raise SystemExit("bench: calvane-fleet exports nothing")
                found.append(1000 * (time.monotonic() - start))
                export.stdout.read()
            start = time.monotonic()
            subprocess.run([self.program("calvane-fleet"), "--version"], check=True, stdout=subprocess.DEVNULL)
            starts.append(1000 * (time.monotonic() - start))
        return median(found) - median(starts)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--smoke", action="store_true")
    options = parser.parse_args()
    rounds, messages, length = (1, 200, 2000) if options.smoke else (3, 4000, 200000) if options.quick else (7, 8000, 10000000)
    rows = []
    for count in (1, 3):
        cluster = Cluster(count)
        try:
            bench = Bench(options.build, cluster)
            for size in (1000, 16000, 200000):
                wall, cpu = bench.side_by_side(min(messages, 800000000 // size), size, rounds)
                what = f"{messages} messages of {size} bytes, {count} server{'s' if count > 1 else ''}"
                rows.append((what, *(1000 * each for each in wall), "ms", 1.11))
                rows.append((what + ", processors", *(1000 * each for each in cpu), "ms", 1.3))
            if count == 1:
                bench.make("long")
                bench.publish("link", "long", length, 160)
                rows.append((f"first byte of an export from {length} messages", bench.first_byte("long", length, rounds),
                             FIRST_BYTE_MS, "ms", 1.0))
        finally:
            cluster.close()
    print_table(rows)


if __name__ == "__main__":
    main()
