"""Running and timing programs."""
import functools
import json
import os
import subprocess
import sys
import time
from statistics import median


def add_extent(parser, quick):
    """The options --quick, which means `quick`, and --smoke; the parsed options then have an `extent`."""
    parser.set_defaults(extent="full")
    group = parser.add_mutually_exclusive_group()
    group.add_argument("--quick", action="store_const", const="quick", dest="extent", help=quick)
    group.add_argument("--smoke", action="store_const", const="smoke", dest="extent",
                       help="everything once and as little of it as possible; the figures mean nothing")


def elapsed(command):
    """Runs the command; returns the seconds on the wall clock and the seconds of processor time."""
    begin = time.perf_counter()
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as process:
        _pid, status, usage = os.wait4(process.pid, 0)
        wall = time.perf_counter() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise Failure(f"{' '.join(command)[:100]} ended with status {process.returncode}")
    return wall, usage.ru_utime + usage.ru_stime


def settle():
    """What others have written is on the device before the next one runs: it would be written at that one's cost. So would be
    memory that the host of a virtual machine has yet to provide, several times as slow as memory that was used just now."""
    if "--smoke" in sys.argv:  # Nothing is measured.
        return
    os.sync()
    subprocess.run([sys.executable, "-c", f"bytes(b'1' * {1 << 30})"], check=True)  # Not here: a child's memory begins with ours.


def forget_cache():
    """Empties the page cache, and settles. Says so once when that is not allowed."""
    os.sync()
    try:
        with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as caches:
            caches.write("3\n")
    except OSError:
        _tell_of_cache()
    settle()


@functools.cache
def _tell_of_cache():
    print("The page cache cannot be emptied (only root may): figures called cold are warm.", flush=True)


class Failure(Exception):
    """Why there is no figure."""


class Figures(dict):
    """By the names of benchmarks. Asking for one that failed raises Failure."""

    def __init__(self):
        super().__init__()
        self.failures = {}

    def __missing__(self, name):
        raise Failure(self.failures.get(name.removesuffix(" cpu"), f"there is no benchmark {name}"))


def bench_figures(program, names, seconds, repetitions=1, prefix=()):
    """Runs benchmarks. Returns nanoseconds by name (with " cpu": processor time), and by name all of the rest.

    With repetitions they take turns, so that a machine that slows down for a while slows them all, and a time is
    the median of them. `prefix`: words of a command that starts the program. When the program dies, each benchmark
    is run by itself, so that one costs only its own figures."""
    options = [f"--benchmark_min_time={seconds}"] if seconds else []
    if repetitions > 1:
        options += [f"--benchmark_repetitions={repetitions}", "--benchmark_enable_random_interleaving=true"]
    times, facts = Figures(), Figures()
    program = [*prefix, program]
    try:
        runs = _bench_runs(program, names, options)
    except Failure:
        runs = []
        for name in _bench_output(program, names, ["--benchmark_list_tests"]).split():
            try:
                runs += _bench_runs(program, f"^{name}$", options)
            except Failure as failure:
                runs.append({"name": name, "run_type": "iteration", "error_message": str(failure)})
    for run in runs:
        if run["run_type"] != "iteration":
            continue
        name = "/".join(part for part in run["name"].split("/") if part.isdigit() or part[0].isupper())
        if "error_message" in run:
            times.failures[name] = facts.failures[name] = f"{name}: {run['error_message']}"
            continue
        times.setdefault(name, []).append(run["real_time"])
        times.setdefault(name + " cpu", []).append(run["cpu_time"])
        facts[name] = run
    for name, figures in times.items():
        times[name] = median(figures)
    return times, facts


def _bench_output(program, names, options):
    ran = subprocess.run([*program, f"--benchmark_filter={names}", *options], stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, check=False, encoding="utf-8")
    if ran.returncode != 0:
        said = ran.stderr.strip().splitlines() or ["nothing on standard error"]
        raise Failure(f"status {ran.returncode}: {said[-1]}")
    return ran.stdout


def _bench_runs(program, names, options):
    return json.loads(_bench_output(program, names, ["--benchmark_format=json", *options]))["benchmarks"]


class Samples:
    """Pairs of figures, ours and theirs, by what they are of."""

    def __init__(self):
        self._pairs = {}
        self._failures = {}

    def add(self, what, measure):
        """Adds the pair that `measure` returns, or the reason why it fails."""
        try:
            self._pairs.setdefault(what, []).append(measure())
        except Failure as failure:
            self._failures[what] = failure

    def medians(self, what):
        """Ours and theirs; None for theirs when it was never measured. A Failure and None when there is one."""
        if what in self._failures:
            return self._failures[what], None
        ours, theirs = zip(*self._pairs[what])
        return median(ours), None if None in theirs else median(theirs)


class OthersWatch:
    """Finds out which share of the machine went to programs that are not ours."""

    def __enter__(self):
        self._busy, self._own, self._begin = self._all_busy(), self._all_own(), time.perf_counter()
        return self

    def __exit__(self, *_):
        busy, own = self._all_busy() - self._busy, self._all_own() - self._own
        capacity = (time.perf_counter() - self._begin) * os.cpu_count()
        self.share = max(0.0, busy - own) / capacity

    @staticmethod
    def _all_busy():
        with open("/proc/stat", encoding="ascii") as stat:
            user, nice, system, _idle, _iowait, irq, softirq, steal = map(int, stat.readline().split()[1:9])
        return (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")

    @staticmethod
    def _all_own():
        times = os.times()
        return times.user + times.system + times.children_user + times.children_system
