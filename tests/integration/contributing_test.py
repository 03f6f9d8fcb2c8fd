#!/usr/bin/env python3
"""Checks that the tables of CONTRIBUTING.md name what the tree has, and nothing else: verbs, presets, folders of
tests, fuzz targets, groups of mutants, layers."""

import json
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "cmake/lint"))
import layers  # pylint: disable=wrong-import-position

TEXT = (ROOT / "CONTRIBUTING.md").read_text()


def section(heading):
    return re.search(rf"^## {heading}\n(.*?)(?=^## |\Z)", TEXT, re.DOTALL | re.MULTILINE).group(1)


def first_column(heading):
    """What the rows of the first table below a heading are about: the code in their first cells."""
    return set(re.findall(r"^\| `([^`]+)`", section(heading), re.MULTILINE))


def compare(what, stated, actual):
    missing, surplus = sorted(actual - stated), sorted(stated - actual)
    return ([f"{what}: not named: {', '.join(missing)}"] if missing else []) + (
        [f"{what}: named, but not there: {', '.join(surplus)}"] if surplus else []) + (
        [] if actual else [f"{what}: the tree has none"])


def folders(path):
    return {folder.name for folder in (ROOT / path).iterdir() if folder.is_dir() and folder.name != "__pycache__"}


def check_verbs():
    script = (ROOT / "dev").read_text()
    actual = set(re.search(r"^    (setup \|[^)]*)\)", script, re.MULTILINE).group(1).split(" | "))
    stated = {command.split()[1] for command in first_column("Set-up")}
    helped = set(re.findall(r"^  ([a-z]+)[ \[A-Z]", script[:script.index("has_preset()")], re.MULTILINE)) - {"help"}
    return compare("verbs", stated, actual) + compare("verbs of ./dev help", helped, actual)


def check_presets():
    presets = json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]
    paragraph = re.search(r"^Presets: (.*?)\.\s", section("Set-up"), re.DOTALL | re.MULTILINE).group(1)
    stated = set(re.findall(r"`([a-z]+)` \(", paragraph))
    return compare("presets", stated, {preset["name"] for preset in presets if not preset.get("hidden")})


def check_tests():
    stated = {path.split("/")[1] for path in first_column("Tests")}
    return compare("folders of tests", stated, folders("tests"))


def check_layers():
    """In a chain A -> B, A may include B, and B must not include A."""
    faults = []
    for library, chain in re.findall(r"nside `(\S+)/`: ([^;.]*->[^;.,]*)", section("Layers")):
        prefix = library.removeprefix("platform/") + "/"
        names = [re.findall(r"`(\w+)`", step) for step in chain.split("->")]
        for upper, lower in zip(names, names[1:]):
            for above in upper:
                for below in lower:
                    if prefix + below not in layers.STREETS[prefix + above]:
                        faults.append(f"layers: {prefix}{above} may not include {below}, against what is said")
                    if prefix + above in layers.STREETS[prefix + below]:
                        faults.append(f"layers: {prefix}{below} may include {above}, against what is said")
    return faults


def main():
    mutants = {path.stem for path in (ROOT / "tests/mutants").glob("*.toml")}
    faults = check_verbs() + check_presets() + check_tests() + check_layers()
    faults += compare("fuzz targets", first_column("Fuzzing"), folders("fuzz/corpus"))
    faults += compare("groups of mutants", first_column("Mutants"), mutants)
    print("\n".join(faults) or "the tables of CONTRIBUTING.md are true")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
