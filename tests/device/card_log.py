"""What may be on a card when the power goes: the log that qemu's blklogwrites keeps of its writes and flushes, and states
that are made from it."""

import os
import random
import struct

SUPER = struct.Struct("<QQQI")
ENTRY = struct.Struct("<QQQQ")
MAGIC = 0x6A736677736872
FLUSH, FUA, DISCARD, MARK = 1, 2, 4, 8
SECTOR = 512
# The first block is written whole or not at all: no file system can be mounted after half of its superblock was.
FIRST_BLOCK = 4096


class CardLog:
    """Reads the log while it grows. Entries have numbers: how many there are is a moment.

    Threads: one at a time."""

    def __init__(self, path):
        self._file = open(path, "rb") # pylint: disable=consider-using-with
        self.entries = [] # (first byte, bytes, flags, place in the log)
        self._end = SECTOR

    def close(self):
        self._file.close()

    def moment(self):
        """How many entries there are by now."""
        size = os.fstat(self._file.fileno()).st_size
        while self._end + SECTOR <= size:
            sector, sectors, flags, _ = ENTRY.unpack(os.pread(self._file.fileno(), ENTRY.size, self._end))
            if sectors == 0 and flags & (FLUSH | FUA) == 0:
                break # Not yet written.
            length = 0 if flags & DISCARD else sectors * SECTOR
            if self._end + SECTOR + length > size:
                break
            self.entries.append((sector * SECTOR, sectors * SECTOR, flags, self._end + SECTOR))
            self._end += SECTOR + length
        return len(self.entries)

    def content(self, entry):
        begin, length, flags, place = entry
        return bytes(length) if flags & DISCARD else os.pread(self._file.fileno(), length, place)


class CardStates:
    """The states of a card from its image before the log began.

    A card with a volatile cache has what was flushed, and of the rest any sectors. One without has all, and of the last run
    of sectors, which it may just be writing, any."""

    def __init__(self, before, log, cached, seed):
        self._log, self._cached, self._random = log, cached, random.Random(seed)
        with open(before, "rb") as image:
            self._durable = bytearray(image.read())
        self._taken, self._pending = 0, [] # Entries so far, and those of them that are not durable.

    def _write(self, image, entry, is_there=lambda: True):
        begin, length, _, _ = entry
        content = self._log.content(entry)
        step = FIRST_BLOCK if begin < FIRST_BLOCK else SECTOR
        for at in range(0, length, step):
            if is_there():
                image[begin + at:begin + at + len(content[at:at + step])] = content[at:at + step]

    def _settle(self):
        for entry in self._pending:
            self._write(self._durable, entry)
        self._pending = []

    def _take(self, entry):
        begin, length, flags, _ = entry
        follows = self._pending and self._pending[-1][0] + self._pending[-1][1] == begin
        if flags & FLUSH if self._cached else not follows:
            self._settle()
        if length:
            self._pending.append(entry)

    def at(self, moment, path):
        """Writes a state after so many entries, at least as many as the last time, into a file."""
        for entry in self._log.entries[self._taken:moment]:
            self._take(entry)
        self._taken = moment
        state = bytearray(self._durable)
        chosen = self._random.randrange(len(self._pending) + 1)
        kind = self._random.randrange(4) # None of it, some of it in order, all but one, each sector by itself.
        for number, entry in enumerate(self._pending):
            there = {0: False, 1: number < chosen, 2: number != chosen}.get(kind)
            self._write(state, entry, lambda there=there: self._random.random() < 0.5 if there is None else there)
        with open(path, "wb") as image:
            image.write(state)
