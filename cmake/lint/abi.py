#!/usr/bin/env python3
"""Compares the binary interface of the libraries, functions and types, with the dumps of it in packaging/abi:

    abi.py [--update] BUILD_DIR ARCHITECTURE DUMP_FOLDER

BUILD_DIR has the libraries with full debugging data. --update writes the dumps instead. Exit status: 0 as dumped or with
additions only, 1 anything else."""

import concurrent.futures
import lzma
import pathlib
import subprocess
import sys

import headers

LIBRARIES = ("libquarn", "libdrenn", "libcalvane")
# The types of installed headers, as far as exported functions lead to them. Nothing of the machine: the preset abi names
# sources from the root of the tree, whether or not ccache has made their paths relative.
DUMP = ["abidw", "--exported-interfaces-only", "--drop-private-types", "--no-show-locs", "--no-corpus-path",
        "--no-comp-dir-path", "--no-elf-needed"]
# Each changed type once, not once for every function that leads to it.
COMPARE = ["abidiff", "--leaf-changes-only", "--no-default-suppression", "--no-show-locs"]
# What abidiff exits with when the interfaces are the same or differ; anything else is a failure of its own.
COMPARED = (0, 4, 8, 12)


def dump(build, include, library):
    """Writes what the library offers into the build and returns the path."""
    path = build / f"{library}.abi"
    subprocess.run([*DUMP, "--headers-dir", include, "--out-file", path, build / f"lib/{library}.so"], check=True)
    if b"<class-decl" not in path.read_bytes():
        sys.exit(f"{library}: there are no types in its debugging data")
    return path


def differences(*arguments):
    """The report of abidiff, empty when there is nothing to report."""
    run = subprocess.run([*COMPARE, *arguments], stdout=subprocess.PIPE, text=True, check=False)
    if run.returncode not in COMPARED:
        sys.exit(f"abidiff failed with status {run.returncode}")
    return run.stdout if run.returncode else ""


def is_compatible(library, known, found):
    """Whether programs still run that were linked with the library of the dump; prints what changed."""
    report = differences(known, found)
    if not report:
        print(f"{library}: as dumped")
    elif not differences("--no-added-syms", known, found):
        print(f"{library}: as dumped, and {report.count('  [A] ')} functions or variables more")
    else:
        print(f"{library}: the change is not compatible\n\n{report}")
        return False
    return True


def main(arguments):
    update = arguments[:1] == ["--update"]
    build, architecture, folder = arguments[1:] if update else arguments
    build, folder = pathlib.Path(build), pathlib.Path(folder)
    include, _ = headers.install(build, build / "prefix")
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        dumps = list(pool.map(lambda library: dump(build, include, library), LIBRARIES))
    wrong = 0
    for library, found in zip(LIBRARIES, dumps):
        packed = folder / f"{library}.{architecture}.xz"
        if update:
            packed.write_bytes(lzma.compress(found.read_bytes(), preset=9))
            continue
        known = build / f"{library}.known.abi"
        known.write_bytes(lzma.decompress(packed.read_bytes()))
        wrong += not is_compatible(library, known, found)
    if wrong:
        print("Programs that were linked before may break. CONTRIBUTING.md says when ./dev abi --update is right.")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
