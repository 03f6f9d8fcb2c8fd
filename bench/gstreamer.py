"""GStreamer's side: lines for gst-launch-1.0, and what a buffer costs in them."""
from measure import elapsed

GST = "gst-launch-1.0"
SINK = "! fakesink sync=false silent=true"
# Without async=false a line waits for all sinks to have a buffer, which one thread cannot give them.
BRANCH = f" t. {SINK} async=false"


def source(buffers):
    return f"fakesrc num-buffers={buffers} sizetype=fixed sizemax=64 silent=true "


def identities(count):
    return "! identity silent=true " * count + SINK


def tee(branches):
    return "! tee name=t" + BRANCH * branches


def command(line):
    return [GST, "-q"] + line.split()


def per_buffer(line_of, counts):
    """Nanoseconds per buffer, on the wall clock and of processor time: the slope between runs of two lengths,
    so that the start does not count. `line_of` makes the line for a number of buffers."""
    short, long = (elapsed(command(line_of(count))) for count in counts)
    return tuple((b - a) * 1e9 / (counts[1] - counts[0]) for a, b in zip(short, long))
