#!/usr/bin/env python3
"""Plants faults one by one and runs the tests that must notice them:

    mutate.py GROUP [--only REGEX] [--part N/M] [--all] [--check]

GROUP names tests/mutants/GROUP.toml:

    targets = ["calvane_store_tests"]   # what is built for each mutant
    tests = "^Store"                    # names of tests, a regex of ctest; that of a mutant goes before it
    timeout = 60                        # seconds that one test may take; one that hangs has noticed
    quick = { CALVANE_TEST_EFFORT = "5" }   # optional: environment of a first, short run of the same tests

    [[mutant]]
    name = "sync-ignored"               # unique
    file = "platform/.../File.cpp"
    old = "the exact text, which occurs once in the file"
    new = "what takes its place"
    tests = "^DeviceTrouble"            # optional
    equivalent = "why no test can notice it"   # optional: it is not run, and the reason is printed

The sources are copied to build/mutate/source and built in build/mutate/build, so the checkout is never touched. All
tests are run without a mutant first: a test that fails by itself notices nothing. --all runs the tests of the whole group
for each mutant, does not stop at the first that notices it, and prints in the end which tests notice a mutant that no
other does, and which notice none. --check only tells whether every mutant still applies. Exit status: 0 all were
noticed; 1 one survived, does not apply or does not compile; 2 the list, the build or the tests without a mutant are at
fault."""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import time
import tomllib
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "mutate"
SOURCE = WORK / "source"
BUILD = WORK / "build"
KEYS = {"name", "file", "old", "new", "tests", "equivalent"}


class Fault(Exception):
    """What ends the run before a mutant could be judged."""


def read_list(group):
    path = ROOT / "tests" / "mutants" / f"{group}.toml"
    if not path.is_file():
        known = sorted(each.stem for each in path.parent.glob("*.toml"))
        raise Fault(f"there is no {path.relative_to(ROOT)}; groups: {', '.join(known) or 'none'}")
    content = tomllib.loads(path.read_text())
    seen = set()
    for mutant in content.get("mutant", []):
        name = mutant.get("name", "one without a name")
        if missing := {"name", "file", "old", "new"} - mutant.keys():
            raise Fault(f"{path.name}: {name} has no {', '.join(sorted(missing))}")
        if unknown := mutant.keys() - KEYS:
            raise Fault(f"{path.name}: {name} has the unknown key {', '.join(sorted(unknown))}")
        if name in seen:
            raise Fault(f"{path.name}: {name} is there twice")
        if "tests" not in mutant and "tests" not in content:
            raise Fault(f"{path.name}: {name} names no tests")
        seen.add(name)
    if not seen:
        raise Fault(f"{path.name} has no mutants")
    return content


def misfit(mutant):
    """Why a mutant does not apply to the checkout, or None."""
    path = ROOT / mutant["file"]
    if not path.is_file():
        return f"there is no {mutant['file']}"
    count = path.read_text().count(mutant["old"])
    if count != 1:
        return f"its text occurs {count} times in {mutant['file']}"
    return "it changes nothing" if mutant["old"] == mutant["new"] else None


def copy_sources():
    """Brings SOURCE up to date; what did not change keeps its time, so that it is not built again."""
    listed = subprocess.run(["git", "-c", f"safe.directory={ROOT}", "ls-files", "-z", "--cached", "--others",
                             "--exclude-standard"], cwd=ROOT, stdout=subprocess.PIPE, check=True).stdout
    names = {name for name in listed.decode().split("\0") if name and (ROOT / name).is_file()}
    for old in [path for path in SOURCE.rglob("*") if path.is_file()]:
        if str(old.relative_to(SOURCE)) not in names:
            old.unlink()
    for name in names:
        source, target = ROOT / name, SOURCE / name
        content = source.read_bytes()
        if not target.is_file() or target.read_bytes() != content:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(content)
        target.chmod(source.stat().st_mode & 0o777)


def run(command, log, environment=None):
    with open(log, "wb") as out:
        return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT, check=False,
                              env={**os.environ, **(environment or {})}).returncode


def tail(log, lines=15):
    return "\n".join(log.read_text(errors="replace").splitlines()[-lines:])


def configure():
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if subprocess.run(
        ["sh", "-c", "command -v ccache"], stdout=subprocess.DEVNULL, check=False).returncode == 0 else []
    log = WORK / "configure.log"
    if run(["cmake", "-S", SOURCE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O2",
            "-DCALVANE_WERROR=OFF", *launcher], log) != 0:
        raise Fault(f"the sources cannot be configured:\n{tail(log)}")


def builds(targets):
    return run(["cmake", "--build", BUILD, "--target", *targets], WORK / "build.log") == 0


def failing(tests, content, stop, quick):
    """The names of those tests that fail; one that cannot be named is "a test"."""
    results = WORK / "results.xml"
    results.unlink(missing_ok=True)
    command = ["ctest", "--test-dir", BUILD, "-R", tests, "--timeout", str(content.get("timeout", 60)), "--parallel",
               str(os.cpu_count()), "--no-tests=error", "--output-on-failure", "--output-junit", results]
    if run(command + (["--stop-on-failure"] if stop else []), WORK / "test.log",
           content.get("quick") if quick else None) == 0:
        return []
    cases = xml.etree.ElementTree.parse(results).iter("testcase") if results.is_file() else []
    return [case.get("name") for case in cases if case.get("status") == "fail"] or ["a test"]


def stages(mutant, content, everything):
    """What is run one after the other until a test fails: tests, and whether quickly."""
    own = [tests for tests in (None if everything else mutant.get("tests"), content.get("tests")) if tests]
    return [(tests, True) for tests in own if "quick" in content] + [(tests, False) for tests in own]


def judge(mutant, content, everything):
    """noticed, survived or broken; and by which tests, or why."""
    path = SOURCE / mutant["file"]
    whole = path.read_text()
    path.write_text(whole.replace(mutant["old"], mutant["new"]))
    try:
        if not builds(content["targets"]):
            return "broken", f"it does not compile:\n{tail(WORK / 'build.log')}"
        for tests, quick in stages(mutant, content, everything):
            if names := failing(tests, content, not everything, quick):
                return "noticed", names
        return "survived", f"{mutant['file']}: {mutant['old'].strip().splitlines()[0]}"
    finally:
        path.write_text(whole)


def choose(mutants, only, part):
    number, parts = (int(each) for each in part.split("/"))
    chosen = [mutant for mutant in mutants if re.search(only, mutant["name"])]
    return chosen[number - 1::parts]


def baseline(content, chosen):
    configure()
    if not builds(content["targets"]):
        raise Fault(f"the sources do not build:\n{tail(WORK / 'build.log')}")
    wanted = sorted({stage for mutant in chosen for stage in stages(mutant, content, "tests" in content)})
    for tests, quick in wanted:  # One by one: ctest takes no regex with many parentheses.
        if failing(tests, content, False, quick):
            raise Fault(f"tests fail without a mutant:\n{tail(WORK / 'test.log')}")


def names_of_tests(tests):
    listed = subprocess.run(["ctest", "--test-dir", BUILD, "-R", tests, "--show-only"], stdout=subprocess.PIPE, text=True,
                            check=True).stdout
    return re.findall(r"Test +#\d+: (\S+)", listed)


def print_worth(tests, noticed):
    """Which tests are the only ones to notice something, and which notice nothing."""
    alone = {}
    for mutant, names in noticed.items():
        if len(names) == 1:
            alone.setdefault(names[0], []).append(mutant)
    print("\nthe only ones to notice a mutant:")
    for test, mutants in sorted(alone.items()):
        print(f"  {test}: {', '.join(mutants)}")
    useful = {name for names in noticed.values() for name in names}
    print("notice none: " + (", ".join(test for test in tests if test not in useful) or "no test"))


def main():
    parser = argparse.ArgumentParser(prog="mutate.py")
    parser.add_argument("group")
    parser.add_argument("--only", default="", metavar="REGEX", help="mutants whose name matches")
    parser.add_argument("--part", default="1/1", metavar="N/M", help="every M-th mutant, from the N-th on")
    parser.add_argument("--all", action="store_true", help="run all tests for each mutant, and say which are needed")
    parser.add_argument("--check", action="store_true", help="only tell whether every mutant applies")
    options = parser.parse_args()
    content = read_list(options.group)
    chosen = choose(content["mutant"], options.only, options.part)
    if options.all and "tests" not in content:
        raise Fault(f"{options.group} has no tests of the whole group")
    if not chosen:
        raise Fault(f"no mutant of {options.group} matches")
    results = {"noticed": [], "survived": [], "broken": [], "equivalent": []}
    fits = []
    for mutant in chosen:
        if reason := misfit(mutant):
            results["broken"].append(mutant["name"])
            print(f"broken      {mutant['name']}: {reason}")
        elif "equivalent" in mutant:
            results["equivalent"].append(mutant["name"])
            if not options.check:
                print(f"equivalent  {mutant['name']}: {mutant['equivalent']}")
        else:
            fits.append(mutant)
    if options.check:
        print(f"{options.group}: {len(chosen)} mutants, {len(results['broken'])} of them do not apply")
        return 1 if results["broken"] else 0
    if fits:
        copy_sources()
        baseline(content, fits)
    noticed = {}
    for number, mutant in enumerate(fits, 1):
        begin = time.monotonic()
        verdict, word = judge(mutant, content, options.all)
        results[verdict].append(mutant["name"])
        if verdict == "noticed":
            noticed[mutant["name"]], word = word, "by " + ", ".join(word)
        print(f"{verdict:11} {mutant['name']}: {word} ({number} of {len(fits)}, {time.monotonic() - begin:.0f} s)", flush=True)
    if options.all and fits:
        print_worth(names_of_tests(content["tests"]), noticed)
    print("\n" + ", ".join(f"{len(names)} {verdict}" for verdict, names in results.items()))
    for verdict in ("survived", "broken"):
        for name in results[verdict]:
            print(f"  {verdict}: {name}")
    return 1 if results["survived"] or results["broken"] else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Fault as fault:
        print(f"mutate: {fault}", file=sys.stderr)
        sys.exit(2)
