#!/usr/bin/env python3
"""Checks what the documents show: docs_test.py CALVANE EMBED_EXAMPLE

A comment before a fenced block says what it is:
  <!-- from PATH -->           an excerpt of that file of the repository, word for word
  <!-- check: NAME exit N -->  a description that `calvane check NAME` answers with that exit status; a text block
                               right behind it is what the program writes to standard error
  <!-- output of: calvane ARGUMENTS -->
                               all that this command, run in the folder of the repository, writes to standard output
Any other ini block is a description that can be loaded. Tables of settings in the guide say what plugin types declare. Links inside the repository must lead somewhere."""

import collections
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
SKIPPED_FOLDERS = {"build", ".git", ".cache"}
FROM = re.compile(r"<!-- from (\S+) -->")
CHECK = re.compile(r"<!-- check: (\S+) exit (\d+) -->")
OUTPUT = re.compile(r"<!-- output of: calvane (.+) -->")
TEST = re.compile(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", re.MULTILINE)
NAMED_TEST = re.compile(r"`([A-Z]\w+\.[A-Z]\w+)`")
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")

# `expected` is the text block right behind this one, or None.
Block = collections.namedtuple("Block", "where language text mark expected")


def documents():
    found = []
    for folder, folders, files in os.walk(ROOT):
        folders[:] = set(folders) - SKIPPED_FOLDERS  # A whole Debian may lie in the build's.
        found += [pathlib.Path(folder) / file for file in files if file.endswith(".md")]
    return sorted(found)


def split(path):
    """The blocks of a document, and its other lines with their places."""
    blocks, prose = [], []
    fence = None  # Of the block that is open: its place and language.
    mark, lines, begin, between = "", [], "", ["nothing ended here yet"]
    for number, line in enumerate(path.read_text().splitlines(), 1):
        where = f"{path.relative_to(ROOT)}:{number}"
        if fence is None and line.startswith("```"):
            fence, lines, begin = line[3:], [], where
        elif line == "```":
            text = "".join(f"{each}\n" for each in lines)
            if fence == "text" and not any(between) and blocks[-1].expected is None:
                blocks[-1] = blocks[-1]._replace(expected=text)
            blocks.append(Block(begin, fence, text, mark, None))
            fence, mark, between = None, "", []
        elif fence is not None:
            lines.append(line)
        else:
            prose.append((where, line))
            between.append(line)
            if line:
                mark = line if line.startswith("<!--") else ""
    return blocks, prose, [f"{begin}: this block is never closed"] if fence is not None else []


def check_excerpt(block, source):
    if not (ROOT / source).is_file():
        return [f"{block.where}: there is no file {source}"]
    if f"\n{block.text}" not in f"\n{(ROOT / source).read_text()}":
        return [f"{block.where}: this text does not stand in {source}"]
    return []


def check_description(block, calvane, name, status):
    with tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / name).write_text(block.text)
        run = subprocess.run([calvane, "check", name], cwd=folder, capture_output=True, text=True, check=False)
    faults = []
    if run.returncode != status:
        faults.append(f"{block.where}: calvane check ends with {run.returncode}, not {status}:\n{run.stderr}")
    elif status != 0 and block.expected is not None and run.stderr != block.expected:
        faults.append(f"{block.where}: calvane check writes\n{run.stderr}where the document says\n{block.expected}")
    return faults


def check_output(block, calvane, arguments):
    run = subprocess.run([calvane, *shlex.split(arguments)], cwd=ROOT, capture_output=True, text=True, check=False)
    if run.returncode != 0 or run.stdout != block.text:
        return [f"{block.where}: calvane {arguments} ends with {run.returncode} and writes\n{run.stdout}{run.stderr}"]
    return []


def check_block(block, calvane):
    excerpt, check = FROM.fullmatch(block.mark), CHECK.fullmatch(block.mark)
    if excerpt:
        return check_excerpt(block, excerpt.group(1))
    if output := OUTPUT.fullmatch(block.mark):
        loads = check_description(block, calvane, "description.ini", 0) if block.language == "ini" else []
        return check_output(block, calvane, output.group(1)) + loads
    if block.mark and not check:
        return [f"{block.where}: this comment means nothing: {block.mark}"]
    if block.language == "cpp":
        return [f"{block.where}: C++ needs a comment that says where it is from"]
    if block.language != "ini":
        return [f"{block.where}: only an ini block can be checked"] if check else []
    name, status = check.groups() if check else ("description.ini", "0")
    return check_description(block, calvane, name, int(status))


def anchors(path):
    headings = [line.lstrip("#").strip().lower() for _, line in split(path)[1] if line.startswith("#")]
    return {re.sub(r"[^\w\- ]", "", heading).replace(" ", "-") for heading in headings}


def check_link(document, where, link):
    if re.match(r"[a-z]+:", link):
        return []
    path, _, anchor = link.partition("#")
    target = document.parent / path if path else document
    if not target.exists():
        return [f"{where}: the link {link} leads nowhere"]
    if anchor and anchor not in anchors(target):
        return [f"{where}: {path or 'this document'} has no heading for #{anchor}"]
    return []


def stated_settings(document):
    """The rows of the tables of settings below the headings of plugin types: type -> key -> kind, default, range."""
    stated, heading = collections.defaultdict(dict), ""
    for _, line in split(document)[1]:
        if line.startswith("#"):
            heading = line.lstrip("#").strip()
        elif line.startswith("| `") and line.count("|") == 6:
            key, *said = (cell.strip() for cell in line.split("|")[1:5])
            stated[heading][key.strip("`")] = tuple(said)
    return stated


def declared_range(setting):
    least, most = setting.get("range", (-2**31, 2**31 - 1))
    if "choices" in setting:
        return ", ".join(setting["choices"])
    if most < 2**31 - 1:
        return f"{least} to {most}"
    return f"from {least}" if least > -2**31 else ""


def check_settings(calvane):
    """The tables of the guide say what the built-in plugin types declare, and leave none out."""
    stated = stated_settings(ROOT / "docs/guide/pipelines.md")
    listed = json.loads(subprocess.run([calvane, "plugins", "--json"], capture_output=True, check=True).stdout)
    faults = []
    for kind in listed["types"]:
        shown = subprocess.run([calvane, "plugins", kind, "--json"], capture_output=True, check=True).stdout
        declared = {}
        for setting in json.loads(shown)["settings"]:
            default = "required" if setting["required"] else str(setting["default"])
            declared[setting["key"]] = (setting["kind"], default, declared_range(setting))
        if declared != stated.get(kind, {}):
            faults.append(f"docs/guide/pipelines.md: {kind} declares {declared}, but its table says {stated.get(kind)}")
    return faults


def check_named_tests():
    """That the tests exist which the pages on design name as proofs."""
    known = {".".join(names) for path in (ROOT / "tests").rglob("*.cpp") for names in TEST.findall(path.read_text())}
    named = [(path.name, name) for path in (ROOT / "docs/design").glob("*.md") for name in NAMED_TEST.findall(path.read_text())]
    if not named:
        return ["the pages on design name no tests"]
    return [f"{page}: there is no test {name}" for page, name in named if name not in known]


def check_embedding(embed_example):
    """The program that the guide shows copies a file with the first description of the README."""
    content = bytes(range(256)) * 1000
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "input.bin").write_bytes(content)
        run = subprocess.run([embed_example, ROOT / "examples/two-pipelines.ini"], cwd=folder, capture_output=True,
                             text=True, check=False)
        if run.returncode != 0:
            return [f"embed-example ends with {run.returncode}: {run.stderr}"]
        archive = folder / "archive.bin"
        if not archive.is_file() or archive.read_bytes() != content:
            return ["embed-example: archive.bin is not what input.bin is"]
        return []


def main():
    calvane, embed_example = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
    faults, blocks, links = check_embedding(embed_example) + check_settings(calvane) + check_named_tests(), 0, 0
    for document in documents():
        found, prose, unclosed = split(document)
        faults += unclosed
        faults += [fault for block in found for fault in check_block(block, calvane)]
        inside = [(where, link) for where, line in prose for link in LINK.findall(line)]
        faults += [fault for where, link in inside for fault in check_link(document, where, link)]
        blocks, links = blocks + len(found), links + len(inside)
    if blocks == 0 or links == 0:
        faults.append(f"there must be something to check: {blocks} blocks and {links} links were found")
    print("\n".join(faults) if faults else f"{blocks} blocks and {links} links are as they should be")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
