#!/usr/bin/env python3
"""Checks what examples/plugin-module/patterns.ini writes: check_patterns.py FOLDER"""

import pathlib
import sys
import zlib

COUNT, LENGTH, INTERVAL_US, MASK = 10, 64, 20000, 15  # As patterns.ini has them.


def ramp(number):
    return bytes((number + i) % 256 for i in range(LENGTH))


WANTED = {
    "plain.txt": ramp,
    "masked.txt": lambda number: bytes(byte & MASK for byte in ramp(number)),
    "stripes.txt": lambda number: bytes((0x55, 0xAA)) * (LENGTH // 2),
}


def main():
    folder, faults = pathlib.Path(sys.argv[1]), []
    for name, block in WANTED.items():
        wanted = "".join(f"0.{number * INTERVAL_US:06} {LENGTH} {zlib.crc32(block(number)):08x}\n"
                         for number in range(COUNT))
        if (got := (folder / name).read_text()) != wanted:
            faults.append(f"{name} holds\n{got}and not\n{wanted}")
    print("\n".join(faults) or "All checksums are right")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
