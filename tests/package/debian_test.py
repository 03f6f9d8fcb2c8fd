#!/usr/bin/env python3
"""What can be said of the Debian packages without building them:

    debian_test.py PREFIX LIBDIR VERSION

PREFIX is where the whole build was installed, LIBDIR its folder for libraries. Every file belongs to one package or is
listed in not-installed, the changelog has the project's version, the unit is confined, and the pages become HTML."""

import fnmatch
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
DEBIAN = ROOT / "packaging/debian"
MULTIARCH = re.compile(r"(lib[a-z]+\.so|cmake/|pkgconfig/|calvane/)")
MOST_EXPOSURE = 1.5


def staged(path, libdir):
    """The path in the package of a file of the prefix: libraries have a folder for each architecture there."""
    rest = path.removeprefix(libdir + "/")
    return f"usr/lib/triplet/{rest}" if rest != path and MULTIARCH.match(rest) else f"usr/{path}"


def patterns():
    """Of each package what it takes from the installed files."""
    for source in sorted(DEBIAN.glob("*.install")) + [DEBIAN / "not-installed"]:
        for line in source.read_text().splitlines():
            if line.startswith("usr/"):
                yield source.name, line.split()[0]


def check_files(prefix, libdir):
    files = {staged(str(path.relative_to(prefix)), libdir) for path in prefix.rglob("*") if not path.is_dir()}
    taken, faults = {}, []
    for package, pattern in patterns():
        found = {file for file in files if fnmatch.fnmatch(file, pattern) or fnmatch.fnmatch(file, pattern + "/*")}
        if not found:
            faults.append(f"{package}: nothing is installed as {pattern}")
        for file in found:
            taken.setdefault(file, set()).add(package)
    faults += [f"{file} belongs to no package" for file in sorted(files - set(taken))]
    # The rest of the pattern lib*.so is what tells a library's file for linking from those of its version.
    return faults + [f"{file} belongs to {' and '.join(sorted(packages))}"
                     for file, packages in sorted(taken.items()) if len(packages) > 1]


def check_version(version):
    first = (DEBIAN / "changelog").read_text().splitlines()[0]
    return [] if re.match(rf"calvane \({re.escape(version)}[-+~)]", first) else [f"changelog: {first}, not {version}"]


def check_unit(prefix):
    if shutil.which("systemd-analyze") is None:
        print("There is no systemd-analyze here: the exposure of the units was not checked")
        return []
    faults = []
    for unit in sorted((prefix / "lib/systemd/system").glob("*.service")):
        run = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager",
                              f"--threshold={MOST_EXPOSURE * 10:.0f}", unit], capture_output=True, text=True, check=False)
        if run.returncode != 0:
            faults.append(f"{unit.name}: {run.stdout.strip().splitlines()[-1] if run.stdout else run.stderr}")
    return faults


def check_rules():
    """A rule that asks for file systems or labels must come after the one of udev that reads them."""
    return [f"{rules.name} comes before what it asks for is known" for rules in sorted((ROOT / "packaging").rglob("*.rules"))
            if "ID_FS_" in rules.read_text() and rules.name < "60-persistent-storage.rules"]


def check_pages():
    if shutil.which("cmark-gfm") is None:
        print("There is no cmark-gfm here: the HTML of the pages was not checked")
        return []
    with tempfile.TemporaryDirectory() as folder:
        run = subprocess.run([sys.executable, "-B", ROOT / "packaging/docs_html.py", folder], capture_output=True, text=True,
                             check=False)
        return [] if run.returncode == 0 else [run.stdout + run.stderr]


def main():
    prefix, libdir, version = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3]
    faults = check_files(prefix, libdir) + check_version(version) + check_unit(prefix) + check_rules() + check_pages()
    print("\n".join(faults) or "The packages have everything once")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
