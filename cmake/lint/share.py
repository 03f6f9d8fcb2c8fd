#!/usr/bin/env python3
"""Prints how many lines of tests stand beside the code. Lines of C++ that are neither blank nor comment count."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
CODE = ("calvane", "platform", "modules", "tools")
TESTS = ("tests",)
WANTED = (25, 35)
BEARABLE = (20, 40)

# Literals are matched so that a // or /* inside of one is no comment.
TOKEN = re.compile(r'R"(?P<mark>[^()\\ ]{0,16})\(.*?\)(?P=mark)"'
                   r"""|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])+'|//[^\n]*|/\*.*?\*/""", re.DOTALL)


def without_comments(text):
    def keep(match):
        token = match.group()
        return "\n" * token.count("\n") if token.startswith("/") else token
    return TOKEN.sub(keep, text)


def lines(folders):
    files = [path for folder in folders for path in (ROOT / folder).rglob("*") if path.suffix in (".h", ".cpp")]
    return sum(1 for path in files for line in without_comments(path.read_text()).splitlines() if line.strip())


def main():
    tests, code = lines(TESTS), lines(CODE)
    if code == 0:
        print("there is no code to count")
        return 1
    share = round(100 * tests / code)
    print(f"Tests are {tests} lines beside {code} lines of code: {share} in 100 "
          f"(wanted: {WANTED[0]} to {WANTED[1]}).")
    return 0 if BEARABLE[0] <= share <= BEARABLE[1] else 1


if __name__ == "__main__":
    sys.exit(main())
