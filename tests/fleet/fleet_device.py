"""A device of a fleet: a recorder of test records, its uplink, and what its card and its stream hold, compared."""
import bisect
import datetime
import json
import os
import re
import signal
import sys

sys.path.insert(1, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "web"))
import harness  # noqa: E402
from nats_cluster import wait_until  # noqa: E402

CLOCK = os.path.join(os.path.dirname(harness.BINARIES), "lib", "shiftedclock.so")
TRACKS = ("video", "audio", "metadata")
RECORDS = """[calvane]
t.pipelines = video,audio,metadata
""" + "".join(f"""[{track}]
t.pipeline.head = {track}.source
[{track}.source]
t.plugin.type = TestRecordSource
t.plugin.module = testrecords.so
t.pipeline.next = {track}.sink
track = {track}
bytes.min = {low}
bytes.max = {high}
rate.millihz = {rate}
[{track}.sink]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = {track}
""" for track, low, high, rate in (("video", 2000, 40000, 30000), ("audio", 320, 320, 50000), ("metadata", 12, 200, 3000)))


def microseconds(text):
    moment = datetime.datetime.fromisoformat(text.replace("Z", "+00:00"))
    return int(moment.timestamp()) * 1000000 + moment.microsecond


class FleetDevice(harness.Device):
    def __init__(self, cluster, name, description=RECORDS, uplink="", groups="", own_clock=False):
        self.own_clock = own_clock
        super().__init__(description=description)
        self.write("web.log", "")
        self.cluster, self.name = cluster, name
        self.uplink = None
        self.set_policy(uplink, groups)

    def start_recorder(self, words=("camera.ini",)):
        """With own_clock it, and what is started behind it, have a clock that set_clock() moves."""
        if self.own_clock and "CALVANE_CLOCK_SHIFT" not in self.environment:
            self.set_clock(0)
            sanitizer = self.environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
            self.environment.update(LD_PRELOAD=CLOCK, CALVANE_CLOCK_SHIFT=self.path("clock"), ASAN_OPTIONS=sanitizer)
        self.recorder = self._start("calvane-recorder", "--root", self.card, "--log", "*=error", *words)

    def set_clock(self, seconds):
        self.write("clock.new", f"{seconds:+d}\n")
        os.replace(self.path("clock.new"), self.path("clock"))

    @property
    def stream(self):
        return f"calvane_{self.name}"

    def set_policy(self, uplink="", groups="", servers=None):
        domain = f"domain = {self.cluster.domain}\n" if self.cluster.domain else ""
        replicas = 3 if len(self.cluster.servers) > 1 else 1
        if "[stream]" not in groups:
            groups += f"\n[stream]\nreplicas = {replicas}\n"
        text = f"[uplink]\nservers = {servers or self.cluster.urls}\n{domain}device = {self.name}\n{uplink}\n{groups}"
        self.write("new.ini", text)
        os.replace(self.path("new.ini"), self.path("uplink.ini"))

    def start_uplink(self):
        with open(self.path("uplink.log"), "ab") as log:
            self.uplink = self._start("calvane-uplink", "--metrics", self.path("metrics"), "uplink.ini", stderr=log)

    def stop_uplink(self, number=signal.SIGTERM):
        if self.uplink:
            uplink, self.uplink = self.uplink, None
            ended = uplink.poll()
            uplink.send_signal(number)
            uplink.wait()
            assert ended is None, f"the uplink has ended with {ended}: {self.uplink_log()[-3000:]}"

    def stop_producers(self):
        """The recorder goes on without pipelines, so that the card stays as it is."""
        self.stop_recorder()
        self.start_recorder(())
        wait_until(lambda: self.ask("summary", check=False), "a recorder without pipelines")

    def metrics(self):
        try:
            with open(self.path("metrics"), encoding="ascii") as file:
                return {name: float(value) for name, value in re.findall(r"^calvane_uplink_(\w+)\{.*\} (.*)$", file.read(), re.M)}
        except FileNotFoundError:
            return {}

    def has_sent_all(self):
        metrics = self.metrics()
        return bool(metrics.get("connected")) and not metrics["lag_seconds"] and not metrics["backlog_seconds"]

    def uplink_log(self):
        with open(self.path("uplink.log"), encoding="utf-8") as file:
            return file.read()

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def card_records(self, track):
        """Time in microseconds, flags and payload of all records on the card."""
        lines = self.ask("read", "--track", track, "--list", "--json").splitlines()
        data, place, records = self.ask("read", "--track", track), 0, []
        for line in lines:
            record = json.loads(line)
            records.append((microseconds(record["time"]), record["keyFrame"], data[place:place + record["bytes"]]))
            place += record["bytes"]
        assert place == len(data), f"{place} of {len(data)} bytes of {track} are listed"
        return records

    def stream_messages(self):
        with self.cluster.client() as client:
            return client.messages(self.stream)

    def close(self):
        try:
            self.stop_uplink()
        finally:
            super().close()


def fields(message):
    words = message.headers["Calvane"].split()
    return words[0], dict(word.split("=", 1) for word in words[1:])


class Lane:
    def __init__(self, number):
        self.number, self.begin, self.records, self.ended = number, None, [], False
        self.part, self.part_time = b"", None


def read_track(messages, track):
    """The records of a track as the format says to read them, with what is against its rules."""
    lanes, problems = {}, []
    for message in messages:
        end = re.fullmatch(rf"calvane\.[\w-]+\.{track}\.(\d+)", message.subject)
        if not end:
            continue
        lane = lanes.setdefault(int(end[1]), Lane(int(end[1])))
        kind, head = fields(message)
        time, number = int(head["time"]), int(head.get("number", 0))
        if lane.ended:
            problems.append(f"lane {lane.number} goes on behind its end")
        if kind == "begin":
            lane.begin = time
        elif kind == "end":
            lane.ended = True
        else:
            offset, total = int(head.get("part", 0)), int(head.get("of", 0))
            lane.part = message.data if offset == 0 else lane.part + message.data
            if total and len(lane.part) < total:
                continue
            if number != len(lane.records) + 1:
                problems.append(f"lane {lane.number} has number {number} behind {len(lane.records)}")
            if lane.records and time < lane.records[-1][0]:
                problems.append(f"lane {lane.number} goes back from {lane.records[-1][0]} to {time}")
            lane.records.append((time, bool(int(head.get("flags", 0)) & 1), lane.part))
            lane.part = b""
    records = []
    for lane in lanes.values():
        until = min([other.begin for other in lanes.values() if other.number > lane.number] + [1 << 62])
        records += [record for record in lane.records if lane.begin <= record[0] < until]
    return sorted(records, key=lambda record: record[0]), problems


def without_lost(card, stream, steps=1):
    """A stream's records less those that were sent just before the recorder lost them, which lie in a hole of the card. So does
    what it erased when the clock was set back, if less had been sent than the time of what came next: each track's first
    record of the new time erases what the others have behind it."""
    known, times = set(card), [record[0] for record in card]
    lost = [record for record in stream if record not in known]
    are_few = len({bisect.bisect(times, record[0]) for record in lost}) <= steps * len(TRACKS)  # Holes.
    return [record for record in stream if record in known] if are_few else stream


def compare(card, stream):
    """What is wrong with a stream, in a few words each."""
    problems = []
    if len(card) != len(stream):
        problems.append(f"{len(card)} records on the card and {len(stream)} in the stream")
    for number, (left, right) in enumerate(zip(card, stream)):
        if left != right:
            problems.append(f"record {number}: {left[0]} {left[1]} {len(left[2])} bytes on the card, "
                            f"{right[0]} {right[1]} {len(right[2])} bytes in the stream")
            break
    return problems
