#!/usr/bin/env python3
"""Measures the copy of recordings in the streams of a fleet: the uplink's link beside the C client's own asynchronous publishing,
how soon the first byte of an export comes from a long stream, how soon an uplink goes on after a crash, and how far it is behind a
recorder. Servers on loopback; "theirs" of what has no other to compare with is the limit."""
import argparse
import base64
import os
import re
import signal
import subprocess
import sys
import time
from datetime import datetime
from statistics import median

from table import print_table

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(1, os.path.join(ROOT, "tests", "fleet"))
from fleet_device import FleetDevice, harness  # noqa: E402
from nats_cluster import Cluster, wait_until  # noqa: E402

BEGIN, INTERVAL = 1795000000.0, 0.02  # Of the records that bench_fleet_publish sends.
FIRST_BYTE_MS, RESUME_MS, LAG_MS = 50, 100, 500


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
        """Seconds, and seconds of processors: by the link, by the client, or by the client with the link's conditions."""
        os.sync()  # What the one before has left is not written at this one's cost.
        out = subprocess.run([self.program("bench_fleet_publish"), how, self.cluster.servers[0].url, device, str(messages), str(size)],
                             check=True, stdout=subprocess.PIPE, encoding="ascii").stdout
        return tuple(float(word) for word in out.split())

    def side_by_side(self, messages, size, rounds):
        figures = {"link": [], "conditions": [], "client": []}
        for turn in range(rounds):
            for how in sorted(figures, reverse=turn % 2 == 1):  # Each of them behind each of the others.
                found = figures[how]
                self.number += 1
                device = f"bench{self.number}"
                self.make(device)
                found.append(self.publish(how, device, messages, size))
                self.delete(device)
        return [{how: 1000 * median(figure[place] for figure in found) for how, found in figures.items()} for place in (0, 1)]

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


class Uplink:
    """A recorder of test records and the uplink of it, with a link that has room."""

    def __init__(self, build, cluster):
        harness.BINARIES = os.path.abspath(os.path.join(build, "bin"))
        self.device = FleetDevice(cluster, "recorder")
        self.device.start_uplink()
        wait_until(lambda: self.device.metrics().get("messages_total", 0) > 100, "messages")

    def resume(self, rounds):
        """Milliseconds from the start of the program behind a crash to the first message that the stream has of it."""
        found = []
        for _ in range(rounds):
            self.device.stop_uplink(signal.SIGKILL)
            last = self.last_message()
            start = time.time()
            self.device.start_uplink()
            wait_until(lambda before=last: self.last_message() > before, "a message")
            with self.device.cluster.client() as client:
                found.append(1000 * (self.stored(client, last + 1)[0] - start))
            time.sleep(0.5)
        return median(found)

    def lag(self, seconds):
        """Milliseconds from the time of each record of video to its being stored: their median, and the largest."""
        time.sleep(2)
        last = self.last_message()
        time.sleep(seconds)
        with self.device.cluster.client() as client:
            lags = [1000 * (stored - recorded) for stored, recorded in
                    (self.stored(client, sequence) for sequence in range(last + 1, self.last_message())) if recorded]
        return median(lags), max(lags)

    def last_message(self):
        with self.device.cluster.client() as client:
            return client.api(f"STREAM.INFO.{self.device.stream}")["state"]["last_seq"]

    def stored(self, client, sequence):
        """When a message was stored, and the time of the record of video in it or 0, in seconds."""
        message = client.api(f"STREAM.MSG.GET.{self.device.stream}", {"seq": sequence})["message"]
        date, fraction = re.fullmatch(r"(.*?)(\.\d+)?Z", message["time"]).groups()
        head = base64.b64decode(message["hdrs"]).decode()
        time_of = re.search(r"Calvane: record .*?\btime=(\d+)", head) if ".video." in message["subject"] else None
        return datetime.fromisoformat(date + "+00:00").timestamp() + float(fraction or 0), int(time_of[1]) / 1e6 if time_of else 0


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
                for kind, found, limit in (("", wall, 1.11), (", processors", cpu, 1.3)):
                    rows.append((f"{what}{kind}; the same messages", found["link"], found["conditions"], "ms", limit))
                    rows.append((f"{what}{kind}; messages without conditions", found["link"], found["client"], "ms", None))
            if count == 1:
                bench.make("long")
                bench.publish("link", "long", length, 160)
                os.sync()
                time.sleep(0 if options.smoke else 20)  # The server has no rest at once.
                rows.append((f"first byte of an export from {length} messages, server at rest", bench.first_byte("long", length, rounds),
                             FIRST_BYTE_MS, "ms", 1.0))
                uplink = Uplink(options.build, cluster)
                try:
                    rows.append(("first message behind a crash of the uplink", uplink.resume(rounds), RESUME_MS, "ms", 1.0))
                    middle, most = uplink.lag(2 if options.smoke else 10)
                    rows.append(("record of video to its being stored, median", middle, LAG_MS, "ms", 1.0))
                    rows.append(("record of video to its being stored, largest", most, LAG_MS, "ms", 1.0))
                finally:
                    uplink.device.close()
        finally:
            cluster.close()
    print_table(rows)


if __name__ == "__main__":
    main()
