#!/usr/bin/env python3
"""Runs clang-tidy over the sources of calvane/, modules/, platform/ and tools/: tidy.py BUILD_DIR WORK_DIR

A source without findings is remembered under WORK_DIR/tidy by all that its result depends on: the settings, the
compile command, and the content of the source and of each of our headers that it includes."""

import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = ("calvane", "modules", "platform", "tools")
TIDY = "clang-tidy-14"
INCLUDE = re.compile(rb'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)


def sources(build):
    """Compile command by source, for the sources of our folders."""
    commands = json.loads((build / "compile_commands.json").read_text())
    wanted = {}
    for entry in commands:
        path = pathlib.Path(entry["directory"], entry["file"]).resolve()
        if path.is_relative_to(ROOT) and path.relative_to(ROOT).parts[0] in FOLDERS:
            wanted[path] = entry["command"]
    return wanted


def not_built(wanted):
    """Sources that no target compiles: nothing would ever look at them."""
    present = {path for folder in FOLDERS for path in (ROOT / folder).rglob("*.cpp")}
    return [f"{path.relative_to(ROOT)}: no target compiles this source\n" for path in sorted(present - wanted.keys())]


def search_paths(command):
    words = shlex.split(command)
    paths = [word[2:] for word in words if word.startswith("-I") and len(word) > 2]
    paths += [after for word, after in zip(words, words[1:]) if word in ("-I", "-isystem")]
    return [pathlib.Path(path) for path in paths if pathlib.Path(path).is_relative_to(ROOT)]


def closure(source, roots):
    """The source and all headers of this tree (generated ones too) that it includes, however deep."""
    found, todo = set(), [source]
    while todo:
        path = todo.pop()
        if path in found:
            continue
        found.add(path)
        for name in INCLUDE.findall(path.read_bytes()):
            candidates = [folder / name.decode() for folder in (path.parent, *roots)]
            todo += [candidate for candidate in candidates if candidate.is_file()][:1]
    return sorted(found)


def key(source, command, settings):
    digest = hashlib.sha256(settings + command.encode())
    for path in closure(source, search_paths(command)):
        digest.update(f"\n{path}\n".encode() + path.read_bytes())
    return digest.hexdigest()


def check(source, build, mark):
    """What clang-tidy finds, or an empty text; a clean result leaves the mark."""
    run = subprocess.run([TIDY, "--quiet", "-p", build, source], text=True, capture_output=True, check=False)
    if run.returncode == 0:
        mark.touch()
        return ""
    return run.stdout + run.stderr


def main():
    build, work = map(pathlib.Path, sys.argv[1:3])
    marks = work / "tidy"
    marks.mkdir(parents=True, exist_ok=True)
    version = subprocess.run([TIDY, "--version"], check=True, capture_output=True).stdout
    settings = version + (ROOT / ".clang-tidy").read_bytes()
    wanted = sources(build)
    jobs = [(source, marks / key(source, command, settings)) for source, command in sorted(wanted.items())]
    todo = [(source, mark) for source, mark in jobs if not mark.exists()]
    for old in set(marks.iterdir()) - {mark for _, mark in jobs}:
        old.unlink()
    begin = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(min(2, os.cpu_count() or 1)) as pool:
        findings = list(filter(None, pool.map(lambda job: check(job[0], build, job[1]), todo)))
    findings += not_built(wanted)
    print("".join(findings), end="")
    print(f"{len(jobs)} sources, {len(todo)} of them changed and checked in {time.monotonic() - begin:.0f} s, "
          f"{len(findings)} with findings")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
