#!/usr/bin/env python3
"""Checks that manual and completion know what the programs know, and nothing else:

    manual_test.py CALVANE PACKAGING OTHER_PROGRAM ...

Commands and options come from the program's own help, the keys of a description from the library's header."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
OPTION = re.compile(r"--[a-z][a-z-]*")


def output(*command, **more):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, **more).stdout


def section(text, title):
    return re.search(rf"^{title}:\n((?:  .*\n)+)", text, re.MULTILINE).group(1)


def options(text):
    """The long options whose lines start the section; descriptions may mention others."""
    starts = re.findall(r"^  (-\S+)", section(text, "Options"), re.MULTILINE)
    return {option for start in starts for option in OPTION.findall(start)}


def commands_in(text):
    commands = section(text, "Subcommands") if "\nSubcommands:\n" in text else ""
    return re.findall(r"^  ([a-z]+)", commands, re.MULTILINE)


def commands_and_options(calvane):
    """Options by command; those of the program itself stand under the empty name."""
    text = output(calvane, "--help")
    return {"": options(text)} | {command: options(output(calvane, command, "--help")) for command in commands_in(text)}


def every_option(program, *words):
    """Those of commands of commands, too."""
    text = output(program, *words, "--help")
    return options(text).union(*(every_option(program, *words, command) for command in commands_in(text)))


def complete(program, script, folder, *words, function="_calvane"):
    """What the completion offers for the last word."""
    code = f'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); {function}; printf "%s\\n" "${{COMPREPLY[@]}}"'
    return set(output("bash", "-c", code, script, program, *words, cwd=folder).split())


def compare(what, got, wanted):
    missing, surplus = sorted(wanted - got), sorted(got - wanted)
    return ([f"{what} lacks {' '.join(missing)}"] if missing else []) + (
        [f"{what} has {' '.join(surplus)}, which the program does not"] if surplus else [])


def check_manual(page, known):
    text = page.read_text().replace("\\-", "-")
    every = {option for found in known.values() for option in found}
    commands = set(re.findall(r"^\.TP\n\.B ([a-z]+)$", text, re.MULTILINE))
    return compare(page.name, set(OPTION.findall(text)), every) + compare(page.name, commands, set(known) - {""})


def check_keys(page):
    keys = set(re.findall(r'"((?:t|thread)\.[a-z.]+?)\.?"', (ROOT / "calvane/config/DescriptionKeys.h").read_text()))
    stated = set(re.findall(r"^\.BI? ((?:t|thread)\.[a-z.]+?)\.?(?: NAME)?$", page.read_text(), re.MULTILINE))
    return compare(page.name, stated, keys) if keys else ["there are no keys in DescriptionKeys.h"]


def check_completion(calvane, script, known):
    faults = []
    with tempfile.TemporaryDirectory() as folder:
        for name in ("camera.ini", "notes.txt"):
            (pathlib.Path(folder) / name).touch()
        for command in filter(None, known):
            got = complete(calvane, script, folder, command, "-")
            faults += compare(f"completion of {command}", got, known[command])
        commands = set(known) - {""}
        faults += compare("completion", complete(calvane, script, folder, ""), commands | known[""])
        faults += compare("completion of check", complete(calvane, script, folder, "check", ""), {"camera.ini"})
        faults += compare("completion of --log-file", complete(calvane, script, folder, "run", "--log-file", "n"),
                          {"notes.txt"})
        faults += compare("completion of plugins", complete(calvane, script, folder, "plugins", "FileS"),
                          {"FileSink", "FileSource"})
    return faults


def check_other(program, packaging):
    """Completion and manual of a program whose completion asks the program."""
    known = commands_and_options(program)
    script = packaging / "completions/calvane-recording"
    page = packaging / f"man/{program.name}.1"
    faults = check_markup(page) + compare(page.name, set(OPTION.findall(page.read_text().replace("\\-", "-"))),
                                          every_option(program) - {"--help"})
    asked = lambda *words: complete(program, script, packaging, *words, function="_calvane_client")
    for command in known:
        faults += compare(f"completion of {program.name} {command}", asked(*filter(None, [command]), "-"), known[command])
    if commands := set(known) - {""}:
        faults += compare(f"completion of {program.name}", asked(""), commands)
    return faults


def check_markup(page):
    if shutil.which("groff") is None:
        print("There is no groff here: the markup of the manual was not checked")
        return []
    run = subprocess.run(["groff", "-man", "-ww", "-z", page], capture_output=True, text=True, check=False)
    return [run.stderr] if run.returncode != 0 or run.stderr else []


def main():
    calvane, packaging = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
    known = commands_and_options(calvane)
    program, description = packaging / "man/calvane.1", packaging / "man/calvane.ini.5"
    faults = check_manual(program, known) + check_keys(description) + check_markup(program)
    faults += check_markup(description) + check_completion(calvane, packaging / "completions/calvane", known)
    for other in sys.argv[3:]:
        faults += check_other(pathlib.Path(other).resolve(), packaging)
    print("\n".join(faults) or f"{len(known)} sets of options stand in manual and completion")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
