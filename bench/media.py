#!/usr/bin/env python3
"""Sets recording and exporting of media beside what ffmpeg does with the same packets.

To be run on a bus of its own (run.sh media). A figure is the median of its rounds, in which ours and theirs take turns."""
import argparse
import contextlib
import json
import os
import platform
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from measure import Failure, OthersWatch, Samples, add_extent, forget_cache, settle
from table import print_table

KIB = 1024
FFMPEG = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
# 1080p30 at 8 Mbit/s and AAC, as a camera sends it; and as many pictures of a day as one in 200 ms.
CAMERA = ["-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=30", "-f", "lavfi", "-i",
          "sine=frequency=440:sample_rate=48000", "-c:v", "libx264", "-preset", "ultrafast", "-g", "30", "-b:v", "8M",
          "-minrate", "8M", "-maxrate", "8M", "-bufsize", "8M", "-x264-params", "nal-hrd=cbr", "-c:a", "aac", "-b:a", "128k"]
DAY = ["-f", "lavfi", "-i", "testsrc2=size=320x180:rate=5", "-c:v", "libx264", "-preset", "ultrafast", "-g", "10",
       "-crf", "35"]
DESCRIPTION = """[calvane]
t.pipelines = input

[input]
t.pipeline.head = source

[source]
t.plugin.type = MediaSource
t.plugin.module = media.so
t.pipeline.next.video = video
t.pipeline.next.audio = audio
url = {url}
realtime = {realtime}

[video]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = video

[audio]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = audio
"""


def run(command):
    """Seconds on the wall clock, of processor time, and KiB of memory at the most."""
    settle()
    begin = time.perf_counter()
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as process:
        return ended(process, begin)


def ended(process, begin):
    _pid, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise Failure(f"{' '.join(process.args)[:100]} ended with status {process.returncode}")
    return time.perf_counter() - begin, usage.ru_utime + usage.ru_stime, usage.ru_maxrss


def own_memory(process):
    """MiB of memory that is not of files, such as libraries, whose pages others share and the kernel may drop."""
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("RssAnon:")) / KIB


def bytes_below(folder):
    return sum(os.path.getsize(os.path.join(here, name)) for here, _folders, names in os.walk(folder) for name in names)


def warm_up(program):
    """Reads the program and its libraries, of which each run would otherwise read tens of MB from the device."""
    needed = subprocess.run(["ldd", program], check=True, stdout=subprocess.PIPE, encoding="utf-8").stdout
    for path in [program, *(word for word in needed.split() if word.startswith("/"))]:
        with open(path, "rb") as file:
            while file.read(1 << 20):
                pass


class Input:
    """So many seconds are encoded, and repeated."""

    def __init__(self, folder, name, encoding, seconds, encoded):
        self.path, self.seconds, self.recorded = os.path.join(folder, name), seconds, 0
        piece = os.path.join(folder, "piece.mkv")
        run([*FFMPEG, *encoding, "-t", str(encoded), piece])
        run([*FFMPEG, "-stream_loop", str(seconds // encoded - 1), "-i", piece, "-c", "copy", self.path])
        os.remove(piece)
        sizes = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "packet=size", "-of", "csv=p=0", self.path],
                               check=True, stdout=subprocess.PIPE, encoding="ascii").stdout.split()
        self.packets, self.bytes = len(sizes), sum(int(size.strip(",")) for size in sizes)


class Recorder:
    def __init__(self, binaries, folder):
        self._binaries, self._folder = binaries, folder
        os.environ.update(DRENN_SETTINGS=os.path.join(folder, "settings.db"))
        os.environ.pop("DRENN_BUS", None)

    def program(self, name, *words):
        return [os.path.join(self._binaries, name), *words]

    def record(self, media, card, seconds=None):
        """Records on a card that is made: all packets, or in real time for so many seconds. As run, with its own memory in
        the end."""
        shutil.rmtree(card, ignore_errors=True)
        os.mkdir(card)
        description = os.path.join(self._folder, "media.ini")
        with open(description, "w", encoding="ascii") as file:
            file.write(DESCRIPTION.format(url=media.path, realtime=0 if seconds is None else 1))
        settle()
        begin, media.recorded = time.perf_counter(), time.time()
        with subprocess.Popen(self.program("calvane-recorder", "--root", card, "--log", "*=warning", description),
                              stdin=subprocess.DEVNULL) as process:
            while self._written() < media.packets if seconds is None else time.perf_counter() - begin < seconds:
                if process.poll() is not None or time.perf_counter() - begin > 120:
                    process.kill()
                    raise Failure("the recorder has not recorded all packets")
                time.sleep(0.2)
            own = own_memory(process)
            process.send_signal(signal.SIGTERM)
            return *ended(process, begin), own

    def _written(self):
        status = subprocess.run(self.program("calvane-recording", "status", "--json"), check=False,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        with contextlib.suppress(ValueError, KeyError):
            return sum(track["records"] for track in json.loads(status.stdout)["tracks"].values())
        return 0


def recording_rows(recorder, media, folder, rounds, live):
    """Leaves the last card. `live`: how many seconds of real time."""
    card, segments = os.path.join(folder, "card"), os.path.join(folder, "segments")

    def segment(name, extension):
        shutil.rmtree(segments, ignore_errors=True)
        os.mkdir(segments)
        return run([*FFMPEG, "-i", media.path, "-map", "0", "-c", "copy", "-f", "segment", "-segment_time", "60",
                    "-segment_format", name, os.path.join(segments, "%04d." + extension)])

    def own_memory_live():
        ours = recorder.record(media, card, live)[3]
        command = [*FFMPEG, "-re", "-i", media.path, "-map", "0", "-c", "copy", os.path.join(folder, "live.mkv")]
        with subprocess.Popen(command, stdin=subprocess.DEVNULL) as process:
            time.sleep(live)
            theirs = own_memory(process)
            process.kill()
        return ours, theirs

    samples = Samples()
    samples.add("live", own_memory_live)
    for _ in range(rounds):
        theirs = segment("matroska", "mkv")
        ours = recorder.record(media, card)
        samples.add("cpu", lambda pair=(ours[1], theirs[1]): pair)
        samples.add("memory", lambda pair=(ours[2] / KIB, theirs[2] / KIB): pair)
    segment("mp4", "mp4")
    sizes = bytes_below(os.path.join(card, "data")) / media.bytes, bytes_below(segments) / media.bytes
    samples.add("bytes", lambda: sizes)
    return [("recording, processor time; ffmpeg -c copy into segmented Matroska", *samples.medians("cpu"), "s", 1.0),
            ("recording in real time, memory of its own; ffmpeg -c copy into Matroska", *samples.medians("live"), "MiB", 1.0),
            ("recording as fast as it goes, memory; the same", *samples.medians("memory"), "MiB", None),
            ("bytes on the card for one of packets; segmented MP4", *samples.medians("bytes"), "", 1.0)]


def export_row(recorder, media, folder, rounds):
    card, target = os.path.join(folder, "card"), os.path.join(folder, "out.mp4")
    samples = Samples()
    for _ in range(rounds):
        samples.add("export", lambda: (
            run(recorder.program("calvane-recording", "export", "--card", card, "--force", target))[0],
            run([*FFMPEG, "-i", media.path, "-map", "0", "-c", "copy", target])[0]))
    return ("export of all; ffmpeg -c copy from one file", *samples.medians("export"), "s", 1.1)


def seek_row(recorder, media, folder, rounds):
    """A second from the middle, with the programs in the page cache and nothing of the recording."""
    card, middle = os.path.join(folder, "day"), media.seconds // 2
    recorder.record(media, card)

    def cold(command):
        forget_cache()
        for program in (command[0], *recorder.program("calvane-recording-media")):
            warm_up(shutil.which(program))
        return run(command)[0] * 1e3

    samples = Samples()
    for _ in range(rounds):
        ago = time.time() - media.recorded + middle  # The recording ends when it was begun: see "realtime".
        samples.add("seek", lambda ago=ago: (
            cold(recorder.program("calvane-recording", "export", "--card", card, "--track", "video",
                                  "--from", f"{ago:.0f}s ago", "--to", f"{ago - 1:.0f}s ago", "-")),
            cold([*FFMPEG, "-ss", str(middle), "-i", media.path, "-map", "0:v", "-t", "1", "-c", "copy", "-f", "matroska",
                  "-"])))
    return (f"a second of video from the middle of {media.seconds / 3600:.1f} h, cold; ffmpeg -ss in one file",
            *samples.medians("seek"), "ms", 0.5)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build")
    add_extent(parser, "a minute of media instead of ten")
    parser.add_argument("--rounds", type=int, help="how often to measure (5; quick: 3)")
    options = parser.parse_args()
    if shutil.which("ffmpeg") is None:
        raise Failure("ffmpeg is not installed (./dev setup)")
    rounds = options.rounds or {"full": 5, "quick": 3, "smoke": 1}[options.extent]
    seconds, encoded = {"full": (600, 60), "quick": (60, 20), "smoke": (4, 2)}[options.extent]
    day, live = {"full": (86400, 20), "quick": (3600, 5), "smoke": (60, 2)}[options.extent]
    with tempfile.TemporaryDirectory(prefix="calvane-bench-", dir=os.environ.get("TMPDIR", "/var/tmp")) as folder:
        recorder = Recorder(os.path.abspath(os.path.join(options.build, "bin")), folder)
        media = Input(folder, "input.mkv", CAMERA, seconds, encoded)
        with OthersWatch() as others:
            rows = recording_rows(recorder, media, folder, rounds, live)
            rows.append(export_row(recorder, media, folder, rounds))
            rows.append(seek_row(recorder, Input(folder, "day.mkv", DAY, day, 60), folder, rounds))
    print(f"{platform.system()} {platform.release()} {platform.machine()}, {os.cpu_count()} processors, {seconds} s of media, "
          f"medians of {rounds} rounds; other programs used {others.share:.0%} of the machine meanwhile")
    print_table(rows)
    return 1 if any(isinstance(ours, Failure) for _what, ours, *_rest in rows) else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        sys.exit(f"bench: {failure}")
