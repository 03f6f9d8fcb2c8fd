#!/usr/bin/env python3
"""Compares records that TestRecordSource made and that were read back with what it sent:
check-test-records.py NAME COUNT FILE"""

import struct
import sys

HEADER = struct.Struct("<QI")  # A number that counts from 0, and the record's length.


def records(data):
    """The records one behind the other: number, and the bytes behind the header."""
    place = 0
    while place < len(data):
        number, length = HEADER.unpack_from(data, place)
        if length < HEADER.size or place + length > len(data):
            sys.exit(f"record at byte {place}: a length of {length} cannot be")
        yield number, data[place + HEADER.size:place + length]
        place += length


def main():
    name, count, path = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    with open(path, "rb") as file:
        data = file.read()
    counting = bytes(range(256)) * 1024
    seen = 0
    expected = 0
    for number, body in records(data):
        if number != expected:
            sys.exit(f"{name}: record {number} follows where {expected} was sent")
        first = number % 256
        if body != counting[first:first + len(body)]:
            sys.exit(f"{name}: the bytes of record {number} are not those that were sent")
        expected = number + 1
        seen += 1
    if seen != count or seen == 0:
        sys.exit(f"{name}: {seen} records were read and {count} listed")
    print(f"{name}: {seen} records, {len(data)} bytes, identical")


if __name__ == "__main__":
    main()
