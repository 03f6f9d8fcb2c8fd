#!/usr/bin/env python3
"""Checks that every installed header compiles by itself in a user's build: headers.py BUILD_DIR WORK_DIR

The headers are installed from BUILD_DIR into WORK_DIR first, so that one that needs a private header fails. None
may use a type whose size depends on the user's _FILE_OFFSET_BITS and _TIME_BITS. A run that finds nothing is
remembered by the content of all headers."""

import concurrent.futures
import hashlib
import itertools
import os
import pathlib
import re
import shutil
import subprocess
import sys

COMPILERS = ("g++", "clang++-14")
FLAGS = ["-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", "-fsyntax-only"]
UNSTEADY = re.compile(r"\b(off_t|ino_t|blkcnt_t|time_t|suseconds_t|timespec|timeval|struct stat)\b")


def install(build, prefix):
    shutil.rmtree(prefix, ignore_errors=True)
    subprocess.run(["cmake", "--install", build, "--component", "dev", "--prefix", prefix],
                   check=True, stdout=subprocess.DEVNULL)
    root = prefix / "include/calvane-1"
    return root, sorted(root.rglob("*.h"))


def content(root, headers):
    digest = hashlib.sha256(" ".join((*COMPILERS, *FLAGS, UNSTEADY.pattern)).encode())
    for header in headers:
        digest.update(f"\n{header.relative_to(root)}\n".encode() + header.read_bytes())
    return digest.hexdigest()


def unsteady_types(root, header):
    """The lines with a type that has another size where offsets or times have another."""
    lines = enumerate(header.read_text().splitlines(), 1)
    return [f"{header.relative_to(root)}:{number}: {found.group()} has no fixed size\n"
            for number, line in lines if (found := UNSTEADY.search(line.split("//")[0]))]


def compile_alone(root, header, compiler):
    """The compiler's complaint, or an empty text. The header is included, since a main file is judged otherwise."""
    # Quoted includes are looked for in the working folder too, which must not be our source tree.
    line = f'#include "{header.relative_to(root)}"\n'
    run = subprocess.run([compiler, *FLAGS, "-I", ".", "-x", "c++", "-"], input=line, text=True, cwd=root,
                         capture_output=True, check=False)
    return f"{header.relative_to(root)} with {compiler}:\n{run.stderr}" if run.returncode else ""


def main():
    build, work = map(pathlib.Path, sys.argv[1:3])
    root, headers = install(build, work / "prefix")
    if not headers:
        print("no header was installed")
        return 1
    good = work / "headers.good"
    now = content(root, headers)
    if good.exists() and good.read_text() == now:
        print(f"{len(headers)} public headers, as checked before")
        return 0
    with concurrent.futures.ThreadPoolExecutor(min(2, os.cpu_count() or 1)) as pool:
        texts = pool.map(lambda job: compile_alone(root, *job), itertools.product(headers, COMPILERS))
        faults = [text for text in texts if text]
    faults += [fault for header in headers for fault in unsteady_types(root, header)]
    print("".join(faults) or f"{len(headers)} public headers compile by themselves", end="" if faults else "\n")
    if not faults:
        good.write_text(now)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
