"""Whether costs stay flat: longer lines, more sinks, more pipelines at once, larger descriptions, counting."""
import os
import tempfile

import gstreamer
from measure import Samples, bench_figures, elapsed

CHAINS = (100, 1000)
SINKS = (10, 100)
PIPELINES = (1, 10, 50)
DESCRIPTIONS = (100, 998)  # With head and end the longest line that is allowed.
CONCURRENT_BUFFERS = 1_000_000  # Of one run of Concurrent.


def all_pipelines(pipelines, buffers):
    """As many lines at once, each with a thread of its own, that share the buffers."""
    return (gstreamer.source(buffers // pipelines) + gstreamer.identities(1) + " ") * pipelines


def describe(folder, plugins):
    """Writes a description that takes a file of one buffer through as many plugins; returns its path."""
    names = [f"p{number}" for number in range(plugins + 2)]
    groups = [f"[{name}]\nt.plugin.type = IdentityPlugin\nt.pipeline.next = {following}\n"
              for name, following in zip(names[1:], names[2:])]
    path = os.path.join(folder, f"{plugins}.ini")
    with open(path, "w", encoding="utf-8") as file:
        file.write("[calvane]\nt.pipelines = line\n[line]\nt.pipeline.head = p0\n[p0]\nt.plugin.type = FileSource\n"
                   f"filename = {path}.source\nt.pipeline.next = p1\n{''.join(groups)}"
                   f"[{names[-1]}]\nt.plugin.type = FileSink\nfilename = {path}.target\n")
    with open(f"{path}.source", "w", encoding="utf-8") as file:
        file.write("one buffer")
    return path


class GrowthRows:
    """What a plugin, a sink and a connection cost, the more of them there are."""

    def __init__(self, bench, calvane, with_gst, quick):
        self._bench, self._calvane, self._with_gst, self._quick = bench, calvane, with_gst, quick
        self._samples = Samples()
        self._rows = []  # What, unit, limit.

    def measure(self, rounds):
        with tempfile.TemporaryDirectory(prefix="calvane-bench-") as folder:
            for _ in range(rounds):
                self._rows = []
                names = "^(Pass|Gen|FanOut|Described|Metered|Concurrent|StartUp)"
                ours, _facts = bench_figures(self._bench, names, 0.02 if self._quick else 0.05, 5)
                self._add_buffers(ours)
                self._add_pipelines(ours)
                self._add_taps(ours)
                self._add_start(ours, folder)
        return [(what, *self._samples.medians(what), unit, limit) for what, unit, limit in self._rows]

    def _add(self, what, ours, theirs, unit, limit=None):
        self._samples.add(what, ours, theirs)
        self._rows.append((what, unit, limit))

    def _gst(self, line, buffers):
        """Nanoseconds per buffer; None without GStreamer."""
        if not self._with_gst:
            return None
        long = buffers // 2 if self._quick else buffers
        return gstreamer.per_buffer(lambda count: gstreamer.source(count) + line, (long // 6, long))[0]

    def _add_buffers(self, ours):
        base = self._gst(gstreamer.identities(0), 400_000)
        for length in CHAINS:
            theirs = self._gst(gstreamer.identities(length), 1_500_000 // length)
            self._add(f"one pass-through plugin, in a chain of {length}; identity",
                      (ours[f"PassThrough/{length}"] - ours["PassThrough/0"]) / length,
                      theirs and (theirs - base) / length, "ns")
        one = self._gst(gstreamer.tee(1), 200_000)
        for sinks in SINKS:
            theirs = self._gst(gstreamer.tee(sinks), 800_000 // sinks)
            self._add(f"one further sink of a source, of {sinks}; tee",
                      (ours[f"FanOut/{sinks}"] - ours["GeneratePushConsume"]) / (sinks - 1),
                      theirs and (theirs - one) / (sinks - 1), "ns")

    def _add_pipelines(self, ours):
        long = 200_000 if self._quick else 400_000
        for pipelines in PIPELINES:
            theirs = None
            if self._with_gst:
                line = lambda count, pipelines=pipelines: all_pipelines(pipelines, count)
                theirs = 1e3 / gstreamer.per_buffer(line, (long // 6, long))[0]
            self._add(f"pipelines at once: {pipelines}, buffers per second in all (more is better); as many lines",
                      CONCURRENT_BUFFERS * 1e3 / ours[f"Concurrent/{pipelines}"], theirs, "M/s")

    def _add_taps(self, ours):
        plugin = (ours["PassThrough/10"] - ours["PassThrough/0"]) / 10
        self._add("chain of ten from a description, no tap; the same connected by hand",
                  ours["Described/10"], ours["PassThrough/10"], "ns")
        self._add("counting one connection, in a chain of ten; one pass-through plugin",
                  (ours["Metered/10"] - ours["Described/10"]) / 11, plugin, "ns")

    def _add_start(self, ours, folder):
        for plugins in DESCRIPTIONS:
            self._add(f"read, load and connect a description of {plugins} plugins, per plugin",
                      ours[f"StartUp/{plugins}"] / plugins / 1e3, None, "us")
        nothing = self._process_times(folder, 0)
        for plugins in DESCRIPTIONS:
            mine, theirs = self._process_times(folder, plugins)
            self._add(f"whole process, {plugins} plugins more than none, processor time; identity",
                      (mine - nothing[0]) * 1e3, theirs and (theirs - nothing[1]) * 1e3, "ms")

    def _process_times(self, folder, plugins):
        """Seconds of processor time: on the wall clock the start of a process varies by more than is asked for."""
        mine = elapsed([self._calvane, "run", describe(folder, plugins)])[1]
        theirs = None
        if self._with_gst:
            theirs = elapsed(gstreamer.command(gstreamer.source(1) + gstreamer.identities(plugins)))[1]
        return mine, theirs
