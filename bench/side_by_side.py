#!/usr/bin/env python3
"""Sets the framework's figures beside those of other programs, measured in the same minutes on the same machine.

Runs are interleaved: every round measures everything once, and a figure is the median of its rounds. What
another program takes for one buffer is the slope between runs of two lengths, so that its start does not count.
"""
import argparse
import os
import platform
import shutil
import sys

import gstreamer
from files import FileRows
from growth import GrowthRows
from measure import Failure, OthersWatch, Samples, add_extent, bench_figures, elapsed
from queues import QueueRows
from table import add_limited, print_table, write_limited

GST_LINES = {
    "base": gstreamer.identities(0),
    "identity": gstreamer.identities(10),
    "queue 200": "! queue max-size-buffers=200 " + gstreamer.SINK,
    "queue 5": "! queue max-size-buffers=5 " + gstreamer.SINK,
    "tee": gstreamer.tee(3),
}


def gst_round(counts):
    """For each line: nanoseconds per buffer on the wall clock, and of processor time."""
    figures = {}
    for name, line in GST_LINES.items():
        figures[name], figures[name + " cpu"] = gstreamer.per_buffer(
            lambda count, line=line: gstreamer.source(count) + line, counts)
    return figures


# What, our figure, theirs (of one round each), and the highest ratio that is wanted (None: only to be known).
PATH_ROWS = [
    ("one pass-through plugin, in a chain of ten; identity",
     lambda o: (o["PassThrough/10"] - o["PassThrough/0"]) / 10, lambda t: (t["identity"] - t["base"]) / 10, 0.2),
    ("generate, push, consume; fakesrc ! fakesink",
     lambda o: o["GeneratePushConsume"], lambda t: t["base"], 0.5),
    ("fan-out to three sinks, whole path; tee",
     lambda o: o["FanOut/3"], lambda t: t["tee"], 0.5),
    ("fan-out to three sinks, more than to one; tee",
     lambda o: o["FanOut/3"] - o["GeneratePushConsume"], lambda t: t["tee"] - t["base"], None),
]
for depth in ("200", "5"):
    PATH_ROWS += [
        (f"queue hand-off, extra, {depth} on the way; queue",
         lambda o, d=depth: o["QueueHandOff/" + d] - o["GeneratePushConsume"],
         lambda t, d=depth: t["queue " + d] - t["base"], 0.5),
        (f"queue, {depth} on the way, whole path; queue",
         lambda o, d=depth: o["QueueHandOff/" + d], lambda t, d=depth: t["queue " + d], None),
        (f"queue, {depth} on the way, whole path, processor time; queue",
         lambda o, d=depth: o[f"QueueHandOff/{d} cpu"], lambda t, d=depth: t[f"queue {d} cpu"], None),
    ]


def path_rows(bench, rounds, extent, with_gst):
    """The rows of PATH_ROWS, and the last round's figures of ours that are no times."""
    seconds, counts = {"full": (0.3, (100_000, 600_000)), "quick": (0.1, (50_000, 250_000)),
                       "smoke": (0.001, (1000, 3000))}[extent]
    samples = Samples()
    for _ in range(rounds):
        ours, facts = bench_figures(bench, "^(PassThrough/1?0$|Generate|FanOut/3|QueueHandOff)", seconds)
        theirs = gst_round(counts) if with_gst else None
        for what, our_figure, their_figure, _limit in PATH_ROWS:
            samples.add(what, lambda o=our_figure, t=their_figure: (o(ours), t(theirs) if theirs else None))
    rows = [(what, *samples.medians(what), "ns", limit) for what, _ours, _theirs, limit in PATH_ROWS]
    return rows, facts


def fact_rows(bench, facts):
    _times, idle = bench_figures(bench, "^IdlePipelines", 0)
    line, _facts = bench_figures(bench, "^CacheLine", 0.1, 5)
    figures = [(f"allocations per buffer: {name}", "", lambda name=name: facts[name]["allocations"])
               for name in ("PassThrough/10", "GeneratePushConsume", "FanOut/3", "QueueHandOff/200")]
    figures += [("one line of cache from one processor to another", "ns", lambda: line["CacheLineRoundTrip"] / 2),
                ("one of 24 idle pipelines with a queue: memory", "KiB",
                 lambda: idle["IdlePipelines/24"]["kib_per_pipeline"]),
                ("one of 24 idle pipelines with a queue: threads", "",
                 lambda: idle["IdlePipelines/24"]["threads_per_pipeline"])]
    samples = Samples()
    for what, _unit, figure in figures:
        samples.add(what, lambda figure=figure: (figure(), None))
    return [(what, *samples.medians(what), unit, None) for what, unit, _figure in figures]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build")
    add_extent(parser, "under three minutes; the figures are rougher")
    add_limited(parser)
    parser.add_argument("--rounds", type=int, help="how often to measure (9; quick: 3)")
    options = parser.parse_args()
    rounds = options.rounds or {"full": 9, "quick": 3, "smoke": 1}[options.extent]
    binaries = os.path.abspath(os.path.join(options.build, "bin"))
    bench, calvane = (os.path.join(binaries, program) for program in ("calvane_bench", "calvane"))

    with_gst = shutil.which(gstreamer.GST) is not None
    if with_gst:
        elapsed(gstreamer.command(gstreamer.source(1) + gstreamer.identities(0)))  # The first run after an installation looks at all its plugins.
    else:
        print(f"{gstreamer.GST} is not installed (./dev setup --bench): rows that compare with it have nothing beside them, "
              "and those of filesrc ! filesink are left out.")

    with OthersWatch() as others:
        rows, facts = path_rows(bench, rounds, options.extent, with_gst)
        rows += QueueRows(bench, with_gst, options.extent).measure(min(rounds, 5))
        rows += GrowthRows(bench, calvane, with_gst, options.extent).measure(min(rounds, 5))
        rows += FileRows(calvane, gstreamer.GST if with_gst else None, options.extent).measure(rounds)
        rows += fact_rows(bench, facts)
    print(f"{platform.system()} {platform.release()} {platform.machine()}, {os.cpu_count()} processors, "
          f"medians of {rounds} rounds; other programs used {others.share:.0%} of the machine meanwhile")
    print_table(rows)
    write_limited(options, others)
    return 1 if any(isinstance(ours, Failure) for _what, ours, *_rest in rows) else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:  # Of what every row is set beside.
        sys.exit(f"bench: {failure}")
