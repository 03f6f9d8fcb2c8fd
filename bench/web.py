#!/usr/bin/env python3
"""Measures the page's server: what viewers cost, how soon the first byte comes, how much memory it takes.

To be run on a bus of its own (run.sh web). "Theirs" are the limits that were set; web_page.py measures the page in a
browser."""
import argparse
import http.client
import os
import platform
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import time
from statistics import median
from urllib.parse import urlsplit

from measure import Failure, OthersWatch, add_extent
from media import Recorder, run
from table import print_table

MIB = 2**20
PIECE = 5  # Seconds that a viewer asks for at once.


class Input:
    """720p30 at 4 Mbit/s and AAC."""

    def __init__(self, folder, seconds):
        self.path, self.seconds, self.recorded = os.path.join(folder, "input.mkv"), seconds, 0
        run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=30", "-f", "lavfi",
             "-i", "sine=frequency=440:sample_rate=48000", "-t", str(seconds), "-c:v", "libx264", "-preset", "ultrafast",
             "-g", "30", "-b:v", "4M", "-minrate", "4M", "-maxrate", "4M", "-bufsize", "4M", "-x264-params", "nal-hrd=cbr",
             "-c:a", "aac", "-b:a", "128k", self.path])
        sizes = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "packet=size", "-of", "csv=p=0", self.path],
                               check=True, stdout=subprocess.PIPE, encoding="ascii").stdout.split()
        self.packets = len(sizes)


class Server:
    def __init__(self, recorder):
        self.process = subprocess.Popen(recorder.program("calvane-web", "--listen", "127.0.0.1:0"), stdout=subprocess.PIPE)
        self.host = urlsplit(self.process.stdout.readline().decode().split(" ")[1]).netloc

    def get(self, path):
        """Seconds to the first byte of the answer, and its bytes."""
        connection = http.client.HTTPConnection(self.host, timeout=30)
        begin = time.perf_counter()
        connection.request("GET", path)
        answer = connection.getresponse()
        first = answer.read(1)
        waited = time.perf_counter() - begin
        content = first + answer.read()
        connection.close()
        if answer.status != 200:
            raise Failure(f"{path}: {answer.status} {content[:200]}")
        return waited, len(content)

    def processor_seconds(self):
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory(self, name):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return 1024 * next(int(line.split()[1]) for line in status if line.startswith(name + ":"))

    def stop(self):
        self.process.terminate()
        if self.process.wait(20) != 0:
            raise Failure(f"calvane-web ended with {self.process.returncode}")


def at(begin, offset):
    return f"@{begin + offset:.3f}"


def watch(server, media, begin, viewers, seconds):
    """So many viewers play for so many seconds. Returns the share of a processor."""
    failures = []

    def view(number):
        try:
            start = time.monotonic() + random.random() * PIECE
            position = (number * 3) % max(1, media.seconds - seconds - PIECE)
            for piece in range(max(1, seconds // PIECE)):
                time.sleep(max(0.0, start + piece * PIECE - time.monotonic()))
                offset = position + piece * PIECE
                server.get(f"/api/media?from={at(begin, offset)}&to={at(begin, offset + PIECE)}")
        except (OSError, Failure) as problem:
            failures.append(problem)
    threads = [threading.Thread(target=view, args=(number,)) for number in range(viewers)]
    used, since = server.processor_seconds(), time.monotonic()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise Failure(str(failures[0]))
    return (server.processor_seconds() - used) / max(seconds, time.monotonic() - since)


def measure(server, media, begin, viewers, seconds, rounds):
    share = watch(server, media, begin, viewers, seconds)
    offsets = [random.random() * (media.seconds - 2) for _ in range(rounds)]
    first = median(server.get(f"/api/media?from={at(begin, offset)}&to={at(begin, offset + 2)}")[0] for offset in offsets)
    picture = median(server.get(f"/api/thumbnail?at={at(begin, offset)}")[0] for offset in offsets)
    timeline = median(server.get("/api/coverage?from=-8760h&buckets=2000")[0] for _ in range(rounds))
    return [(f"{viewers} viewers of 4 Mbit/s, share of a processor; the limit", share * 100, 25, "%", 1.0),
            ("first byte of media at a time; the limit of the first picture", first * 1e3, 250, "ms", 1.0),
            ("a picture at a time; the same", picture * 1e3, 250, "ms", 1.0),
            ("coverage of a year; the limit of the first timeline", timeline * 1e3, 300, "ms", 1.0),
            ("memory of its own; the limit", server.memory("RssAnon") / MIB, 24, "MiB", 1.0),
            ("memory with the code of shared libraries", server.memory("VmRSS") / MIB, None, "MiB", None)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build")
    add_extent(parser, "viewers for ten seconds instead of a minute")
    options = parser.parse_args()
    if shutil.which("ffmpeg") is None:
        raise Failure("ffmpeg is not installed (./dev setup)")
    viewers, seconds, rounds = {"full": (16, 60, 50), "quick": (16, 10, 20), "smoke": (2, 2, 2)}[options.extent]
    with tempfile.TemporaryDirectory(prefix="calvane-bench-", dir=os.environ.get("TMPDIR", "/var/tmp")) as folder:
        recorder = Recorder(os.path.abspath(os.path.join(options.build, "bin")), folder)
        media = Input(folder, seconds + 3 * PIECE)
        recorder.record(media, os.path.join(folder, "card"))
        reader = subprocess.Popen(recorder.program("calvane-recorder", "--root", os.path.join(folder, "card"), "--log",
                                                   "*=warning"))
        server = Server(recorder)
        try:
            while True:
                try:
                    server.get("/healthz")
                    break
                except Failure:
                    time.sleep(0.2)
            with OthersWatch() as others:
                # The recording ends when it was begun.
                rows = measure(server, media, media.recorded - media.seconds, viewers, seconds, rounds)
            server.stop()
        finally:
            server.process.kill()
            reader.terminate()
            reader.wait()
    print(f"{platform.system()} {platform.release()} {platform.machine()}, {os.cpu_count()} processors, {viewers} viewers for "
          f"{seconds} s; other programs used {others.share:.0%} of the machine meanwhile")
    print_table(rows)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        sys.exit(f"bench: {failure}")
