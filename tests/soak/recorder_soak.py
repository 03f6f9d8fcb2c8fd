#!/usr/bin/env python3
"""Treats a running recorder badly and checks all that it answers:

    recorder_soak.py BIN [--seconds N] [--seed N]

BIN is the folder of the programs. The recorder records verifiable data on a small card of its own while its clock jumps,
the card is pulled and put back, its settings are corrupted or removed, the bus is stopped and goes on, the limit of age
changes each second, and sixteen clients ask and read without a pause. Each answer is checked: records against what was
sent, and the order and the form of the rest. It must go on recording, end in order and leave a good store.

Needs root, since it makes a loop device. Exit status: 0 all was right, 1 something was not, 2 it could
not be run."""

import argparse
import collections
import json
import os
import pathlib
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

CLIENTS = 16
CARD_MIB = 192
HEADER = struct.Struct("<QI")  # A record's number, counted from 0, and its length.
COUNTING = bytes(range(256)) * 1024
TRACKS = ("video", "audio", "metadata")
REASONS = {"data", "stopped", "no card", "erased", "dropped", "clock", "unknown", "interrupted",
           "space limit", "card full"}
STATES = {"recording", "waiting", "read-only", "card-away", "disabled"}
# What a client may be told while all this goes on. Anything else is a fault.
TOLERATED = re.compile(r"is away|was erased while it was read|was there any more|Recording is currently disabled|"
                       r"The recorder could not read on|timed out|Method call timeout|no reply|NoReply|"
                       r"Error fetching|at most 16|streams|has no|No data|cannot be read|could not be read|"
                       r"earlier than any|later than any|Cannot read")
DESCRIPTION = """[calvane]
t.pipelines = {pipelines}
"""
PIPELINE = """
[{track}]
t.pipeline.head = {track}.source
[{track}.source]
t.plugin.type = TestRecordSource
t.plugin.module = testrecords.so
t.pipeline.next = {track}.queue
track = {track}
bytes.min = {least}
bytes.max = {most}
rate.millihz = {rate}
[{track}.queue]
t.plugin.type = QueuePlugin
t.pipeline.next = {track}.sink
allow.drop.on.write = 1
[{track}.sink]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = {track}
"""


class Unfit(Exception):
    """Why this machine cannot run it."""


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Unfit(f"{' '.join(map(str, command))}: {done.stderr.strip()}")
    return done.stdout.strip()


class Card:
    """A small ext4 on a loop device."""

    def __init__(self, folder):
        self.path, self._image = folder / "card", folder / "image"
        self.path.mkdir()
        self.there = False
        with open(self._image, "wb") as image:
            image.truncate(CARD_MIB << 20)
        run("mkfs.ext4", "-q", "-F", "-m", "0", self._image)
        self.mount()

    def mount(self):
        run("mount", "-o", "loop", self._image, self.path)
        self.there = True

    def pull(self):
        run("umount", "--lazy", self.path)
        self.there = False


class Soak:
    def __init__(self, binaries, folder, seed):
        self._binaries, self._folder = binaries, folder
        self._random = random.Random(seed)
        self._lock = threading.Lock()
        self._faults, self._tolerated, self._done = [], collections.Counter(), collections.Counter()
        self._stop = threading.Event()
        self._settings, self._offset = folder / "settings.db", folder / "offset"
        self._card = Card(folder)
        self._set_clock(0)
        (folder / "device.ini").write_text("[device]\nmodel.name = Soak\nserial.number = 1\n")
        pipelines = {"video": (8000, 60000, 30000), "audio": (320, 320, 50000), "metadata": (200, 200, 5000)}
        (folder / "recorder.ini").write_text(DESCRIPTION.format(pipelines=",".join(pipelines)) + "".join(
            PIPELINE.format(track=track, least=least, most=most, rate=rate)
            for track, (least, most, rate) in pipelines.items()))
        self._env = dict(os.environ, DRENN_SETTINGS=str(self._settings), DRENN_DEVICE_INFORMATION=str(folder / "device.ini"))
        self._bus = self._recorder = None

    def start(self):
        # pylint: disable=consider-using-with
        self._bus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address"],
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self._env["DBUS_SESSION_BUS_ADDRESS"] = self._bus.stdout.readline().strip()
        self._env.pop("DRENN_BUS", None)
        library = self._binaries.parent / "lib" / "shiftedclock.so"
        if not library.exists():
            raise Unfit(f"there is no {library}: the tests are not built")
        shifted = dict(self._env, LD_PRELOAD=str(library), CALVANE_CLOCK_SHIFT=str(self._offset))
        self._recorder = subprocess.Popen(
            [self._binaries / "calvane-recorder", "--root", self._card.path, "--log", "*=warning", "--log-file",
             self._folder / "log", self._folder / "recorder.ini"], env=shifted, stdout=subprocess.DEVNULL)

    def end(self):
        """Gives everything back, however it went."""
        for process in filter(None, (self._recorder, self._bus)):
            process.send_signal(signal.SIGCONT)
            process.kill()
            process.wait()
        if self._card.there:
            self._card.pull()

    # Bad treatment

    def _set_clock(self, seconds):
        new = self._offset.with_suffix(".new")
        new.write_text(f"{seconds:+d}\n")
        new.rename(self._offset)

    def _jump(self):
        self._set_clock(self._random.choice((0, 3, -3, 60, -60, 3600, -3600, 86400)))

    def _pull(self):
        self._card.pull()
        time.sleep(self._random.uniform(0.1, 3))
        self._card.mount()

    def _corrupt_settings(self):
        what = self._random.randrange(4)
        if what == 0:
            self._settings.unlink(missing_ok=True)
        elif what == 1:
            self._settings.write_bytes(self._random.randbytes(5000))
        elif what == 2:
            self._settings.write_bytes(b"")
        elif self._settings.exists():  # A byte somewhere.
            with open(self._settings, "r+b") as file:
                file.seek(self._random.randrange(max(1, self._settings.stat().st_size)))
                file.write(self._random.randbytes(1))

    def _stall_bus(self):
        self._bus.send_signal(signal.SIGSTOP)
        time.sleep(self._random.uniform(0.1, 4))
        self._bus.send_signal(signal.SIGCONT)

    def _treat_badly(self):
        actions = (self._jump, self._jump, self._pull, self._corrupt_settings, self._stall_bus)
        while not self._stop.wait(self._random.uniform(0.3, 3)):
            action = self._random.choice(actions)
            action()
            self._note_done(action.__name__.strip("_"))

    def _change_limit(self):
        while not self._stop.wait(1):
            limit = self._random.choice(("none", "3s", "20s", "1min", "1h"))
            self._ask("retention", "set", limit)

    # Checks

    def _fault(self, text):
        with self._lock:
            self._faults.append(text)

    def _note_done(self, what):
        with self._lock:
            self._done[what] += 1

    def _ask(self, *words, text=True):
        """Standard output, or None when the answer was a failure that is to be expected."""
        command = [self._binaries / "calvane-recording", *words]
        done = subprocess.run(command, env=self._env, capture_output=True, check=False, timeout=120)
        problem = done.stderr.decode(errors="replace").strip()
        if done.returncode not in (0, 1) or (done.returncode == 1 and not TOLERATED.search(problem)):
            self._fault(f"{' '.join(words)}: status {done.returncode}: {problem[-300:]}")
        self._note_done(words[0])
        if done.returncode != 0:
            with self._lock:
                self._tolerated[re.sub(r"[0-9T:.Z-]{8,}|[0-9]+|/\S+", "*", problem)[:100]] += 1
            return None if text else done.stdout
        return done.stdout.decode() if text else done.stdout

    def _ask_json(self, *words):
        answer = self._ask(*words, "--json")
        return None if answer is None else json.loads(answer)

    def _read(self, track):
        data = self._ask("read", "--track", track, text=False)
        place, before = 0, -1
        while place < len(data):
            number, length = HEADER.unpack_from(data, place)
            body = data[place + HEADER.size:place + length]
            if number <= before:
                self._fault(f"{track}: record {number} follows {before}")
            if length < HEADER.size or body != COUNTING[number % 256:number % 256 + length - HEADER.size]:
                self._fault(f"{track}: record {number} at byte {place} is not what was sent")
                return
            place, before = place + length, number
            self._note_done("records")

    def _check_coverage(self, track):
        answer = self._ask_json("coverage", "--track", track)
        for one, other in zip((answer or {}).get(track, []), (answer or {}).get(track, [])[1:]):
            if not one["first"] <= one["last"] == other["first"] or one["reason"] == other["reason"]:
                self._fault(f"coverage of {track}: {one} and then {other}")
            if one["reason"] not in REASONS:
                self._fault(f"coverage of {track}: {one}")

    def _check_history(self, _track):
        answer = self._ask_json("history")
        times = [event["time"] for event in (answer or {}).get("events", [])]
        if times != sorted(times):
            self._fault(f"the history is not in order: {times}")

    def _check_tracks(self, _track):
        for facts in (self._ask_json("tracks") or {}).values():
            if facts is not None and facts["first"] > facts["last"]:
                self._fault(f"tracks: {facts}")

    def _check_status(self, _track):
        answer = self._ask_json("status")
        if answer is not None and answer["state"] not in STATES:
            self._fault(f"status: {answer}")

    def _be_greedy(self, number):
        chosen = random.Random(number)
        checks = (self._read, self._check_coverage, self._check_history, self._check_tracks, self._check_status)
        while not self._stop.is_set():
            try:
                chosen.choice(checks)(chosen.choice(TRACKS))
            except Exception as problem:  # pylint: disable=broad-except
                self._fault(f"client {number}: {problem!r}")

    def _records_written(self):
        answer = self._ask_json("status")
        return None if answer is None else sum(track["records"] for track in answer["tracks"].values())

    def _expect_recording(self, when):
        """Records come, at the latest after a while: a card that is back and a clock that went back take theirs."""
        deadline = time.monotonic() + 60
        before = None
        while time.monotonic() < deadline:
            if self._recorder.poll() is not None:
                self._fault(f"the recorder ended with status {self._recorder.returncode} {when}")
                return
            now = self._records_written()
            if before is not None and now is not None and now > before:
                return
            before = now if now is not None else before
            time.sleep(0.5)
        self._fault(f"nothing is recorded {when}; status: {self._ask('status')}")

    def go(self, seconds):
        self.start()
        time.sleep(2)
        self._expect_recording("at the start")
        threads = [threading.Thread(target=self._treat_badly), threading.Thread(target=self._change_limit)]
        threads += [threading.Thread(target=self._be_greedy, args=(number,)) for number in range(CLIENTS)]
        for thread in threads:
            thread.start()
        end = time.monotonic() + seconds
        while time.monotonic() < end and self._recorder.poll() is None and len(self._faults) < 20:
            time.sleep(min(15, max(0, end - time.monotonic())))
            self._expect_recording("meanwhile")
        self._stop.set()
        for thread in threads:
            thread.join()
        self._ask("retention", "set", "none")
        self._expect_recording("at the end")
        self._recorder.send_signal(signal.SIGTERM)
        try:
            if self._recorder.wait(timeout=60) != 0:
                self._fault(f"the recorder ended with status {self._recorder.returncode}")
        except subprocess.TimeoutExpired:
            self._fault("the recorder does not end")
        verified = subprocess.run([self._binaries / "calvane-store", "verify", self._card.path], capture_output=True,
                                  text=True, check=False)
        if verified.returncode != 0:
            self._fault(f"calvane-store verify: {verified.stdout[-500:]}{verified.stderr[-500:]}")
        return self._report()

    def _report(self):
        print("done: " + ", ".join(f"{count} {what}" for what, count in sorted(self._done.items())))
        for text, count in self._tolerated.most_common(20):
            print(f"answered {count} times: {text}")
        for fault in self._faults[:20]:
            print(f"FAULT {fault}")
        print(f"{len(self._faults)} faults")
        return 1 if self._faults else 0


def main():
    parser = argparse.ArgumentParser(prog="recorder_soak.py", description=__doc__.splitlines()[0])
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--seconds", type=float, default=600)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--keep", type=pathlib.Path, help="leave log and settings in this folder")
    options = parser.parse_args()
    if os.geteuid() != 0:
        raise Unfit("only root may make loop devices")
    print(f"seed {options.seed}, {options.seconds:.0f} seconds", flush=True)
    with tempfile.TemporaryDirectory(prefix="calvane-soak-") as folder:
        soak = Soak(options.binaries.resolve(), pathlib.Path(folder), options.seed)
        try:
            return soak.go(options.seconds)
        finally:
            soak.end()
            if options.keep:
                shutil.copytree(folder, options.keep, ignore=lambda *_: {"image", "card"}, dirs_exist_ok=True)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Unfit as reason:
        print(f"soak: {reason}", file=sys.stderr)
        sys.exit(2)
