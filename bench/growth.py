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

    def __init__(self, bench, calvane, with_gst, extent):
        self._bench, self._calvane, self._with_gst = bench, calvane, with_gst
        self._seconds, self._repetitions, self._share = {
            "full": (0.05, 5, 1), "quick": (0.02, 5, 2), "smoke": (0.001, 1, 100)}[extent]
        self._samples = Samples()
        self._rows = []  # What, unit, limit.

    def measure(self, rounds):
        with tempfile.TemporaryDirectory(prefix="calvane-bench-") as folder:
            for _ in range(rounds):
                self._rows = []
                names = "^(Pass|Gen|FanOut|Described|Metered|Concurrent|StartUp)"
                ours, _facts = bench_figures(self._bench, names, self._seconds, self._repetitions)
                self._add_buffers(ours)
                self._add_pipelines(ours)
                self._add_taps(ours)
                self._add_start(ours, folder)
        return [(what, *self._samples.medians(what), unit, limit) for what, unit, limit in self._rows]

    def _add(self, what, unit, ours, theirs=lambda: None, limit=None):
        self._samples.add(what, lambda: (ours(), theirs()))
        self._rows.append((what, unit, limit))

    def _gst(self, line, buffers):
        """Nanoseconds per buffer; None without GStreamer."""
        if not self._with_gst:
            return None
        long = buffers // self._share
        return gstreamer.per_buffer(lambda count: gstreamer.source(count) + line, (long // 6, long))[0]

    def _difference(self, line, base, steps, buffers):
        """What each of so many steps from one line to another costs; None without GStreamer."""
        return self._with_gst and (self._gst(line, buffers) - base) / steps or None

    def _add_buffers(self, ours):
        base = self._gst(gstreamer.identities(0), 400_000)
        for length in CHAINS:
            self._add(f"one pass-through plugin, in a chain of {length}; identity", "ns",
                      lambda length=length: (ours[f"PassThrough/{length}"] - ours["PassThrough/0"]) / length,
                      lambda length=length: self._difference(gstreamer.identities(length), base, length,
                                                             1_500_000 // length))
        one = self._gst(gstreamer.tee(1), 200_000)
        for sinks in SINKS:
            self._add(f"one further sink of a source, of {sinks}; tee", "ns",
                      lambda sinks=sinks: (ours[f"FanOut/{sinks}"] - ours["GeneratePushConsume"]) / (sinks - 1),
                      lambda sinks=sinks: self._difference(gstreamer.tee(sinks), one, sinks - 1, 800_000 // sinks))

    def _add_pipelines(self, ours):
        long = 400_000 // self._share

        def theirs(pipelines):
            line = lambda count: all_pipelines(pipelines, count)
            return 1e3 / gstreamer.per_buffer(line, (long // 6, long))[0] if self._with_gst else None

        for pipelines in PIPELINES:
            self._add(f"pipelines at once: {pipelines}, buffers per second in all (more is better); as many lines",
                      "M/s", lambda pipelines=pipelines: CONCURRENT_BUFFERS * 1e3 / ours[f"Concurrent/{pipelines}"],
                      lambda pipelines=pipelines: theirs(pipelines))

    def _add_taps(self, ours):
        self._add("chain of ten from a description, no tap; the same connected by hand", "ns",
                  lambda: ours["Described/10"], lambda: ours["PassThrough/10"])
        self._add("counting one connection, in a chain of ten; one pass-through plugin", "ns",
                  lambda: (ours["Metered/10"] - ours["Described/10"]) / 11,
                  lambda: (ours["PassThrough/10"] - ours["PassThrough/0"]) / 10)

    def _add_start(self, ours, folder):
        for plugins in DESCRIPTIONS:
            self._add(f"read, load and connect a description of {plugins} plugins, per plugin", "us",
                      lambda plugins=plugins: ours[f"StartUp/{plugins}"] / plugins / 1e3)
        for plugins in DESCRIPTIONS:
            self._add(f"whole process, {plugins} plugins more than none, processor time; identity", "ms",
                      lambda plugins=plugins: self._start_ms(folder, plugins),
                      lambda plugins=plugins: self._with_gst and self._their_start_ms(plugins) or None)

    # Processor time: on the wall clock the start of a process varies by more than is asked for.
    def _start_ms(self, folder, plugins):
        some, none = (elapsed([self._calvane, "run", describe(folder, count)])[1] for count in (plugins, 0))
        return (some - none) * 1e3

    @staticmethod
    def _their_start_ms(plugins):
        some, none = (elapsed(gstreamer.command(gstreamer.source(1) + gstreamer.identities(count)))[1]
                      for count in (plugins, 0))
        return (some - none) * 1e3
