"""What may be on a card when the power goes: the log that qemu's blklogwrites keeps of its writes and flushes, and states
that are made from it."""

import os
import random
import struct

ENTRY = struct.Struct("<QQQQ")
FLUSH, FUA, DISCARD = 1, 2, 4
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

    A card with a volatile cache has what was flushed, and of the rest any sectors. One without has all: each command is
    finished before the next one comes, and qemu logs each sector of it by itself."""

    def __init__(self, before, log, cached, seed):
        self._log, self._cached, self._random = log, cached, random.Random(seed)
        with open(before, "rb") as image:
            self._durable = bytearray(image.read())
        self._taken, self._pending = 0, [] # Entries so far, and those of them that are not durable.

    def _write(self, image, entry, is_there=lambda _: True):
        begin, length, _, _ = entry
        content = self._log.content(entry)
        for at in range(0, length, SECTOR):
            if is_there(begin + at):
                image[begin + at:begin + at + SECTOR] = content[at:at + SECTOR]

    def _settle(self):
        for entry in self._pending:
            self._write(self._durable, entry)
        self._pending = []

    def _take(self, entry):
        if not self._cached or entry[2] & FLUSH:
            self._settle()
        if entry[1]:
            self._pending.append(entry)

    def at(self, moment, path):
        """Writes a state after so many entries, at least as many as the last time, into a file."""
        for entry in self._log.entries[self._taken:moment]:
            self._take(entry)
        self._taken = moment
        if not self._cached:
            self._settle()
        state = bytearray(self._durable)
        chosen = self._random.randrange(len(self._pending) + 1)
        kind = self._random.randrange(4) # None of it, some of it in order, all but one, each sector by itself.
        has_first_block = self._random.random() < 0.5
        for number, entry in enumerate(self._pending):
            there = {0: False, 1: number < chosen, 2: number != chosen}.get(kind)

            def is_there(sector, there=there):
                if sector < FIRST_BLOCK:
                    return has_first_block
                return self._random.random() < 0.5 if there is None else there
            self._write(state, entry, is_there)
        with open(path, "wb") as image:
            image.write(state)
