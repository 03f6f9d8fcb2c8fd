#!/usr/bin/env python3
"""Checks from the #include lines that the layers only look down: layers.py [--self-test]

Without an argument the tree that this file lies in is checked; --self-test plants violations in a tree of its
own and checks that each is found, and nothing else."""

import pathlib
import re
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')

QUARN = {"quarn", "quarn/osa", "quarn/memory", "quarn/core", "quarn/msgbus", "quarn/settings"}
DRENN = {"drenn", "drenn/core", "drenn/api", "drenn/api/generated", "drenn/multi_track_recorder"}
BUFFER = QUARN | {"calvane", "calvane/buffer"}
GRAPH = BUFFER | {"calvane/graph"}
CONFIG = GRAPH | {"calvane/config"}
RUNTIME = CONFIG | {"calvane/runtime"}
PLUGINS = RUNTIME | {"calvane/plugins"}
RECORDING = QUARN | DRENN | {"calvane", "calvane/recording"}
SERVICES = RECORDING | {"calvane/services"}
# The recorder's facade stands above both, and in the folder below for the sake of those who include it.
FACADE = "calvane/recording/RecordingManager"

# Folder of a library (as it is written in an include) -> the folders whose headers it may include.
STREETS = {
    "quarn": {"quarn"},
    "quarn/osa": {"quarn", "quarn/osa"},
    "quarn/memory": {"quarn", "quarn/osa", "quarn/memory"},
    "quarn/core": {"quarn", "quarn/osa", "quarn/memory", "quarn/core"},
    "quarn/msgbus": {"quarn", "quarn/osa", "quarn/core", "quarn/msgbus"},
    "quarn/settings": {"quarn", "quarn/osa", "quarn/core", "quarn/settings"},
    "drenn": QUARN | DRENN,
    "drenn/core": QUARN | DRENN,
    "drenn/api": QUARN | DRENN,
    "drenn/multi_track_recorder": QUARN | DRENN,
    "calvane": {"calvane"},
    "calvane/buffer": BUFFER,
    "calvane/graph": GRAPH,
    "calvane/config": CONFIG,
    "calvane/runtime": RUNTIME,
    "calvane/plugins": PLUGINS,
    "calvane/testing": RUNTIME | {"calvane/testing"},
    "calvane/recording": RECORDING,
    "calvane/services": SERVICES,
    FACADE: SERVICES | {FACADE},
}
# These use the libraries as everybody else does: any installed header.
USERS = ("tools", "modules", "examples")


def includes(path):
    """The included paths of one file, each with its line number and its quote."""
    for number, line in enumerate(path.read_text(errors="replace").splitlines(), 1):
        if match := INCLUDE.match(line):
            yield number, match.group(2), match.group(1)


def fault(folder, header, quote):
    """What is wrong with a source of `folder` including `header`, or None. `folder` is None for a user."""
    library = header.split("/")[0]
    if library not in ("quarn", "drenn", "calvane"):
        if folder and quote == '"':
            return "include by whole path from the include root"
        return None
    inside = folder is not None and folder.split("/")[0] == library
    if not inside and "internal" in header.split("/"):
        return f"this header is private to {library}"
    if folder is None:
        return None
    looked_at = room(header)
    if looked_at not in STREETS[folder]:
        return f"{folder} does not look at {looked_at}"
    return None


def room(file):
    """What of a file has a place among the layers: its folder, below which "internal" has what is private to it, or
    the file itself without its suffix."""
    stem = file.rsplit(".", 1)[0]
    return stem if stem in STREETS else file.rsplit("/", 1)[0].split("/internal")[0]


def check_file(root, path, folder):
    where = path.relative_to(root)
    if folder is not None and folder not in STREETS:
        return [f"{where}: {folder} has no place among the layers; give it one in cmake/lint/layers.py"]
    return [f"{where}:{number}: {header}: {why}"
            for number, header, quote in includes(path)
            if (why := fault(folder, header, quote))]


def check_tree(root):
    """The number of files looked at and the texts of all violations."""
    jobs = [(path, room(str(path.relative_to(base)))) for base in (root / "platform", root)
            for library in ("quarn", "drenn", "calvane") for path in sources(base / library)]
    jobs += [(path, None) for user in USERS for path in sources(root / user)]
    return len(jobs), [text for path, folder in jobs for text in check_file(root, path, folder)]


def sources(folder):
    return sorted(path for path in folder.rglob("*") if path.suffix in (".h", ".cpp"))


GOOD = [
    ("platform/quarn/core/A.cpp", '#include "quarn/osa/internal/Futex.h"'),
    ("calvane/buffer/A.cpp", '#include "quarn/core/IMemoryHandle.h"'),
    ("calvane/graph/A.cpp", '#include "calvane/graph/IPluginConfiguration.h"'),
    ("calvane/graph/B.cpp", '#include "calvane/graph/internal/Outputs.h"'),
    ("calvane/runtime/A.cpp", '#include "calvane/config/internal/Environment.h"'),
    ("calvane/plugins/A.cpp", "#include <vector>"),
    ("calvane/services/A.cpp", '#include "calvane/recording/internal/RecordingSession.h"'),
    ("calvane/recording/RecordingManager.cpp", '#include "calvane/services/internal/RecordingServices.h"'),
    ("tools/one/A.cpp", '#include "calvane/config/PluginManager.h"'),
    ("tools/one/B.cpp", '#include "Options.h"'),
]
BAD = [
    ("platform/quarn/osa/B.cpp", '#include "quarn/core/Logger.h"'),
    ("platform/quarn/core/B.cpp", '#include "quarn/msgbus/MsgBus.h"'),
    ("platform/quarn/settings/B.cpp", '#include "quarn/msgbus/MsgBus.h"'),
    ("platform/quarn/core/C.cpp", '  #  include <calvane/Export.h>'),
    ("platform/drenn/core/B.cpp", '#include "calvane/Export.h"'),
    ("calvane/Export.h", '#include "calvane/buffer/Buffer.h"'),
    ("calvane/buffer/B.cpp", '#include "calvane/graph/Sink.h"'),
    ("calvane/buffer/C.cpp", '#include "Buffer.h"'),
    ("calvane/buffer/D.cpp", '#include "quarn/osa/internal/Futex.h"'),
    ("calvane/buffer/E.cpp", '#include "calvane/config/IPluginConfiguration.h"'),
    ("calvane/graph/C.cpp", '#include "calvane/config/PluginManager.h"'),
    ("calvane/graph/D.cpp", '#include "calvane/config/IPluginConfiguration.h"'),
    ("calvane/config/B.cpp", '#include "calvane/runtime/CalvaneEnv.h"'),
    ("calvane/runtime/B.cpp", '#include "calvane/plugins/QueuePlugin.h"'),
    ("calvane/recording/B.cpp", '#include "calvane/graph/Sink.h"'),
    ("calvane/recording/C.cpp", '#include "calvane/services/RecordingInformationImpl.h"'),
    ("calvane/recording/internal/D.cpp", '#include "calvane/recording/RecordingManager.h"'),
    ("calvane/services/B.cpp", '#include "calvane/runtime/CalvaneEnv.h"'),
    ("calvane/services/internal/C.cpp", '#include "calvane/recording/RecordingManager.h"'),
    ("calvane/nowhere/B.cpp", ""),
    ("tools/C.cpp", '#include "calvane/graph/internal/Outputs.h"'),
    ("modules/one/C.cpp", '#include "quarn/osa/internal/Futex.h"'),
]


def self_test():
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        for name, line in GOOD + BAD:
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(f"// Planted.\n{line}\n")
        looked_at, found = check_tree(root)
    expected = {name for name, _ in BAD}
    got = {text.split(":")[0] for text in found}
    problems = [f"not found: {name}" for name in expected - got] + [f"found: {name}" for name in got - expected]
    if looked_at != len(GOOD) + len(BAD):
        problems.append(f"looked at {looked_at} files")
    return problems, f"{len(BAD)} planted violations found"


def main():
    if sys.argv[1:] == ["--self-test"]:
        found, summary = self_test()
    else:
        looked_at, found = check_tree(ROOT)
        summary = f"{looked_at} files keep to the layers"
        if looked_at == 0:
            found = ["there are no sources to look at"]
    print("\n".join(found) if found else summary)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
