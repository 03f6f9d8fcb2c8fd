#!/usr/bin/env python3
"""Runs the benchmarks of the framework, the recorder and the store several times, and says which limits they meet.

What counts is the median of all runs, of which more than half are to be quiet: while others use the machine, runs are
added. An interrupt ends it with the runs that are whole."""
import argparse
import json
import os
import subprocess
import sys
import tempfile
from statistics import median

from measure import add_extent

SCRIPTS = {"framework": "side_by_side.py", "recorder": "recorder.py", "store": "store.py"}
PREFIXES = {"recorder": ("dbus-run-session", "--")}
QUIET = 0.05  # Of the machine, to others.


def run(name, number, options, folder):
    """What the script wrote of its limits. Its tables go to a file of their own."""
    limited = os.path.join(folder, "limited.json")
    tables = os.path.join(options.out, f"{number}-{name}.txt")
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), SCRIPTS[name])
    command = [*PREFIXES.get(name, ()), sys.executable, "-B", script, "--build", options.build, "--limited", limited]
    if options.extent != "full":
        command.append("--" + options.extent)
    with open(tables, "w", encoding="utf-8") as out:
        status = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=out, check=False).returncode
    if status != 0:
        sys.exit(f"bench: measuring the {name} ended with status {status}; {tables} has what it said")
    with open(limited, encoding="utf-8") as file:
        return json.load(file)


def measure(options, runs):
    """Adds for each run the share of others, and all figures with their limits."""
    most = 2 * options.runs if options.extent != "smoke" else options.runs
    with tempfile.TemporaryDirectory() as folder:
        while len(runs) < options.runs or (len(runs) < most and 2 * count_quiet(runs) <= options.runs):
            results = [run(name, len(runs) + 1, options, folder) for name in SCRIPTS]
            runs.append((max(result["others"] for result in results),
                         {what: figure for result in results for what, figure in result["figures"].items()}))
            others, figures = runs[-1]
            met = sum(is_met(*figure) for figure in figures.values())
            print(f"Run {len(runs)}: others used {others:.0%} of the machine; {met} of {len(figures)} limits are met", flush=True)


def count_quiet(runs):
    return sum(others <= QUIET for others, _figures in runs)


def is_met(figure, limit, at_least):
    return figure >= limit if at_least else figure <= limit


def print_runs(runs):
    print("\n| what; beside what | must be | median | lowest | highest | met in runs | met |\n|---|---:|---:|---:|---:|---:|---|")
    for what, (_figure, limit, at_least) in runs[0][1].items():
        figures = [each[what][0] for _others, each in runs if what in each]
        met = sum(is_met(figure, limit, at_least) for figure in figures)
        print(f"| {what} | {'at least' if at_least else 'at most'} {limit:g} | {median(figures):.3g} | {min(figures):.3g} |"
              f" {max(figures):.3g} | {met} of {len(runs)} | {'yes' if is_met(median(figures), limit, at_least) else 'NO'} |")


def main():
    parser = argparse.ArgumentParser(prog="whole.py", description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build")
    add_extent(parser, "fewer rounds in each run")
    parser.add_argument("--runs", type=int, help="how many (5; smoke: 1)")
    parser.add_argument("--out", help="folder for the tables of each run (runs/ in that of the build)")
    options = parser.parse_args()
    options.runs = options.runs or (1 if options.extent == "smoke" else 5)
    options.out = options.out or os.path.join(options.build, "runs")
    os.makedirs(options.out, exist_ok=True)
    runs = []
    try:
        measure(options, runs)
    except KeyboardInterrupt:
        if not runs:
            raise
    print(f"\n{len(runs)} runs, {count_quiet(runs)} of them with others below {QUIET:.0%} of the machine; tables are in {options.out}")
    print_runs(runs)


if __name__ == "__main__":
    sys.exit(main())
