"""Running and timing programs."""
import json
import os
import subprocess
import sys
import time
from statistics import median


def elapsed(command):
    """Runs the command; returns the seconds on the wall clock and the seconds of processor time."""
    begin = time.perf_counter()
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as process:
        _pid, status, usage = os.wait4(process.pid, 0)
        wall = time.perf_counter() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"bench: {' '.join(command)} ended with status {process.returncode}")
    return wall, usage.ru_utime + usage.ru_stime


def bench_figures(program, names, seconds, repetitions=1):
    """Runs benchmarks. Returns nanoseconds by name (with " cpu": processor time), and by name all of the rest.

    With repetitions they take turns, so that a machine that slows down for a while slows them all, and a time is
    the median of them."""
    command = [program, f"--benchmark_filter={names}", "--benchmark_format=json"]
    if seconds:
        command.append(f"--benchmark_min_time={seconds}")
    if repetitions > 1:
        command += [f"--benchmark_repetitions={repetitions}", "--benchmark_enable_random_interleaving=true"]
    answer = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout
    times, facts = {}, {}
    for run in json.loads(answer)["benchmarks"]:
        if run["run_type"] == "iteration":
            if "error_message" in run:
                sys.exit(f"bench: {run['name']}: {run['error_message']}")
            name = "/".join(part for part in run["name"].split("/") if part.isdigit() or part[0].isupper())
            times.setdefault(name, []).append(run["real_time"])
            times.setdefault(name + " cpu", []).append(run["cpu_time"])
            facts[name] = run
    return {name: median(figures) for name, figures in times.items()}, facts


class Samples:
    """Pairs of figures, ours and theirs, by what they are of."""

    def __init__(self):
        self._pairs = {}

    def add(self, what, ours, theirs):
        self._pairs.setdefault(what, []).append((ours, theirs))

    def medians(self, what):
        """Ours and theirs; None for theirs when it was never measured."""
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
