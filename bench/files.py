"""From file to file: `calvane run` beside dd and GStreamer, whole processes."""
import filecmp
import os
import shutil
import tempfile

from measure import Failure, Samples, elapsed, settle

MIB = 1024 * 1024
DESCRIPTION = """[calvane]
t.pipelines = copy

[copy]
t.pipeline.head = reader

[reader]
t.plugin.type = FileSource
t.pipeline.next = writer
filename = {source}
buffer.blocksize.bytes = {block}

[writer]
t.plugin.type = FileSink
filename = {target}
"""


class FileRows:
    """Copies a file of 256 MiB in blocks of 64 KiB, and one of 64 MiB in blocks of 1 KiB, in memory and on disk."""

    SIZES = [(64 * 1024, 256 * MIB, 1.05, 1.0), (1024, 64 * MIB, 1.2, 0.8)]  # Block, file, limits: dd, GStreamer.
    MEMORY = "/dev/shm"

    def __init__(self, calvane, gst, extent):
        self._calvane, self._gst, self._share = calvane, gst, 64 if extent == "smoke" else 1

    def measure(self, rounds):
        rows = []
        for place, folder in (("in memory", self.MEMORY), ("on disk", os.environ.get("TMPDIR", "/var/tmp"))):
            if not os.path.isdir(folder) or shutil.disk_usage(folder).free < 1024 * MIB:
                print(f"{folder} has not got a free GiB: no files {place}.")
                continue
            for block, whole, dd_limit, gst_limit in self.SIZES:
                length = whole // self._share
                with tempfile.TemporaryDirectory(prefix="calvane-bench-", dir=folder) as here:
                    rows += self._rows(here, place, rounds, block, length, (dd_limit, gst_limit))
        return rows

    def _rows(self, here, place, rounds, block, length, limits):
        source, target = os.path.join(here, "source"), os.path.join(here, "target")
        with open(source, "wb") as file:
            for _ in range(length // MIB):
                file.write(os.urandom(MIB))
        commands = self._commands(here, source, target, block)
        samples = Samples()
        for number in range(rounds):
            for name in list(commands)[1:]:
                samples.add(name, lambda other=name, turned=number % 2: self._pair(
                    [commands["calvane"], commands[other]], source, target, turned))
        return [(f"file to file, {block // 1024} KiB blocks, {length // MIB} MiB {place}; {name}",
                 *samples.medians(name), "ms", limit) for name, limit in zip(list(commands)[1:], limits)]

    def _commands(self, here, source, target, block):
        description = os.path.join(here, "copy.ini")
        with open(description, "w", encoding="utf-8") as file:
            file.write(DESCRIPTION.format(source=source, target=target, block=block))
        commands = {"calvane": [self._calvane, "run", description],
                    "dd": ["dd", f"if={source}", f"of={target}", f"bs={block}", "status=none"]}
        if self._gst:
            commands["filesrc ! filesink"] = [self._gst, "-q", "filesrc", f"location={source}", f"blocksize={block}",
                                              "!", "filesink", f"location={target}"]
        return commands

    def _pair(self, commands, source, target, turned):
        """Milliseconds of each, the second one measured first if they are turned."""
        step = -1 if turned else 1
        return [self._copy(command, source, target) * 1e3 for command in commands[::step]][::step]

    @staticmethod
    def _copy(command, source, target):
        settle()
        wall, _cpu = elapsed(command)
        same = filecmp.cmp(source, target, shallow=False)
        os.remove(target)
        if not same:
            raise Failure(f"{command[0]} has not copied {source} as it is")
        return wall
