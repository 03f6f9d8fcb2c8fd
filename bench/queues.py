"""Queues in a row, a queue that several threads feed, and how long a buffer takes through an empty one."""
import os
import re
import shutil
import subprocess
import sys

import gstreamer
from measure import Failure, Samples, bench_figures

LINES = (2, 4, 8)
FEEDERS = 4
FED_BUFFERS = 1_000_000  # Of one run of QueueFedBy.
QUEUE = "! queue max-size-buffers=200 "
LATENCY = re.compile(r"element-latency,.*\(string\)q,.*time=\(guint64\)(\d+)")
REAL_TIME = ("chrt", "--fifo", "50")


def fed_by(feeders, buffers):
    lines = f"{gstreamer.source(buffers // feeders)} ! f. " * feeders
    return f"funnel name=f {QUEUE}{gstreamer.SINK} {lines}"


def share_of(figures, share):
    return sorted(figures)[int(share * (len(figures) - 1))]


class QueueRows:
    def __init__(self, bench, with_gst, extent):
        self._bench, self._with_gst = bench, with_gst
        self._seconds, self._counts, self._delays = {
            "full": (0.3, (50_000, 300_000), 3000), "quick": (0.1, (25_000, 125_000), 1000),
            "smoke": (0.001, (400, 1200), 20)}[extent]
        self._samples, self._rows = Samples(), {}

    def measure(self, rounds):
        for _ in range(rounds):
            ours, _facts = bench_figures(self._bench, "^(GeneratePushConsume|QueuesInLine|QueueFedBy)", self._seconds)
            base = self._slope(lambda count: gstreamer.source(count) + gstreamer.SINK)
            for count in LINES:
                self._add(f"{count} queues in a row, extra, 200 on the way; as many queue", "ns", 0.5,
                          lambda count=count: (ours[f"QueuesInLine/{count}"] - ours["GeneratePushConsume"],
                                               self._with_gst and self._in_line(count) - base or None))
            self._add(f"one queue fed by {FEEDERS} threads, whole path; funnel and queue", "ns", 0.5,
                      lambda: (ours[f"QueueFedBy/{FEEDERS}"] / FED_BUFFERS, self._slope(lambda count: fed_by(FEEDERS, count))))
            self._add_delays("an empty queue, from pushing to the handler", ())
            if subprocess.run([*REAL_TIME, "true"], check=False, stderr=subprocess.DEVNULL).returncode == 0:
                with Load():
                    self._add_delays("the same with real-time priority beside a busy machine", REAL_TIME)
            else:
                print("Real-time priority is not allowed here: the rows of an empty queue with it are left out.", file=sys.stderr)
        return [(what, *self._samples.medians(what), unit, limit) for what, (unit, limit) in self._rows.items()]

    def _add(self, what, unit, limit, pair):
        self._samples.add(what, pair)
        self._rows[what] = (unit, limit)

    def _slope(self, line):
        """None without GStreamer."""
        return gstreamer.per_buffer(line, self._counts)[0] if self._with_gst else None

    def _in_line(self, queues):
        return self._slope(lambda count: gstreamer.source(count) + QUEUE * queues + gstreamer.SINK)

    def _add_delays(self, what, prefix):
        _times, facts = bench_figures(self._bench, "^QueueDelay", self._delays / 1e3, prefix=prefix)
        theirs = self._their_delays(prefix) if self._with_gst else None
        for name, share in (("p50", 0.5), ("p99.9", 0.999)):
            self._add(f"{what}, {name}; queue", "us", 0.8,
                      lambda name=name, share=share: (facts["QueueDelay"][name] / 1e3, theirs and share_of(theirs, share) / 1e3))

    def _their_delays(self, prefix):
        """Nanoseconds, as GStreamer's own tracer finds them: from pushing into the queue to its pushing on."""
        line = gstreamer.source(self._delays) + "! identity silent=true sleep-time=1000 ! queue name=q " + gstreamer.SINK
        tracer = {"GST_TRACERS": "latency(flags=element)", "GST_DEBUG": "GST_TRACER:7", "GST_DEBUG_NO_COLOR": "1"}
        said = subprocess.run([*prefix, *gstreamer.command(line)], check=True, encoding="utf-8", env={**os.environ, **tracer},
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE).stderr
        found = [int(match[1]) for match in LATENCY.finditer(said)]
        if len(found) < self._delays / 2:
            raise Failure("the tracer of GStreamer tells nothing of the queue")
        return found


class Load:
    """As many busy programs as there are processors."""

    def __enter__(self):
        # pylint: disable=consider-using-with
        self._programs = [subprocess.Popen([shutil.which("sh"), "-c", "while :; do :; done"]) for _ in range(os.cpu_count())]

    def __exit__(self, *_):
        for program in self._programs:
            program.kill()
            program.wait()
