#!/usr/bin/env python3
"""What the libraries export is what is listed in packaging/symbols, from which packages make their symbols files.

    symbols_test.py [--update] NM ARCHITECTURE LIST_FOLDER LIBRARY...

--update writes the lists instead. Exit status: 0 as listed, 1 not."""

import pathlib
import subprocess
import sys


def exported(nm, library):
    lines = subprocess.run([nm, "-D", "--defined-only", library], stdout=subprocess.PIPE, text=True, check=True).stdout
    return sorted(line.split()[-1] for line in lines.splitlines())


def demangled(names):
    text = subprocess.run(["c++filt"], input="\n".join(names), stdout=subprocess.PIPE, text=True, check=True).stdout
    return text.splitlines()


def list_path(folder, library, architecture):
    return folder / f"{pathlib.Path(library).name.split('.so')[0]}.{architecture}"


def differences(listed, found):
    """One line for each name that is only in one of the two."""
    gone, new = sorted(set(listed) - set(found)), sorted(set(found) - set(listed))
    return [f"  no longer exported: {name}" for name in demangled(gone)] + \
           [f"  not listed: {name}" for name in demangled(new)]


def main(arguments):
    update = arguments[:1] == ["--update"]
    nm, architecture, folder, *libraries = arguments[1:] if update else arguments
    wrong = 0
    for library in libraries:
        names = exported(nm, library)
        path = list_path(pathlib.Path(folder), library, architecture)
        if update:
            path.write_text("".join(name + "\n" for name in names))
            continue
        if not names:
            sys.exit(f"{library} exports nothing at all")
        found = differences(path.read_text().split(), names)
        if found:
            print(f"{path}:", *found, sep="\n")
        wrong += len(found)
    if wrong:
        print("If that is intended: ./dev symbols writes the lists anew. A name that is gone breaks programs that use it.")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
