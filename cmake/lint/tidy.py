#!/usr/bin/env python3
"""Runs clang-tidy over sources of BUILD_DIR: tidy.py BUILD_DIR [REGEX]

REGEX chooses by the path below the root of the tree. A source that nothing was found in is remembered outside the
tree, by the content of all that was read to compile it, by its command and by the settings of clang-tidy, so that
only what changed is looked at again. The build must be up to date: what each source reads is what ninja noted."""

import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

CLANG_TIDY = "clang-tidy-14"
SOURCES = re.compile(r"(calvane|modules|platform|tools)/")
ROOT = pathlib.Path(__file__).resolve().parents[2]


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def read_files(build):
    """The files that each object was compiled from, by the object's path below `build`."""
    files = {}
    lines = []
    for line in run("ninja", "-C", str(build), "--quiet", "-t", "deps").splitlines():
        if line.startswith("    "):
            lines.append(line.strip())
        elif ": #deps " in line and line.endswith("(VALID)"):
            lines = files[line.split(": #deps ")[0]] = []
    return files


@functools.lru_cache(maxsize=None)
def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def relative(path):
    return str(path.relative_to(ROOT)) if path.is_relative_to(ROOT) else str(path)


def key_of(build, entry, files, settings):
    """What the answer of clang-tidy depends on; nothing where that is not known."""
    found = re.search(r" -o (\S+)", entry["command"])
    if not found or found.group(1) not in files:
        return None
    parts = [settings, entry["command"].replace(str(ROOT), "")]
    for name in sorted(files[found.group(1)]):
        path = pathlib.Path(os.path.normpath(build / name))
        parts.append(relative(path) + " " + digest(path))
    return hashlib.sha256("\n".join(parts).encode()).hexdigest()


def check(build, source):
    """What clang-tidy finds."""
    done = subprocess.run([CLANG_TIDY, "-p", str(build), "--quiet", str(source)], capture_output=True, text=True,
                          check=False)
    return (done.stdout or done.stderr) if done.returncode else ""


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    wanted = re.compile(sys.argv[2] if len(sys.argv) > 2 else "")
    cache = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache") / "calvane-tidy"
    cache.mkdir(parents=True, exist_ok=True)
    settings = run(CLANG_TIDY, "--version") + (ROOT / ".clang-tidy").read_text()
    files = read_files(build)
    keys = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        source = pathlib.Path(entry["file"])
        name = relative(source)
        if SOURCES.match(name) and wanted.search(name):
            keys.setdefault(source, key_of(build, entry, files, settings))
    if not keys:
        print("no source matches")
        return 1
    todo = {source: key for source, key in keys.items() if key is None or not (cache / key).exists()}
    print(f"   {len(keys)} sources, {len(keys) - len(todo)} of them unchanged since nothing was found in them", flush=True)
    bad = False
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for source, complaint in zip(todo, pool.map(lambda each: check(build, each), todo)):
            if complaint:
                bad = True
                print(complaint, flush=True)
            elif todo[source]:
                (cache / todo[source]).touch()
    return bad


sys.exit(main())
