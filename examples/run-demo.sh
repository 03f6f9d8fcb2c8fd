#!/usr/bin/env bash
# Makes an input file, runs two-pipelines.ini on it and compares what came out. Expects `calvane` in PATH.
# Usage: run-demo.sh [FOLDER]    the folder for the files; a temporary one that is removed if none is named
set -euo pipefail

description=$(cd "$(dirname "$0")" && pwd)/two-pipelines.ini
if [ $# -gt 0 ]; then
    mkdir -p "$1"
    folder=$1
else
    folder=$(mktemp -d)
    trap 'rm -rf "$folder"' EXIT
fi
cd "$folder"

block=65536
echo "Making input.bin: 64 MiB of random bytes"
head -c $((64 * 1024 * 1024)) /dev/urandom > input.bin

echo "calvane check two-pipelines.ini"
calvane check "$description"
echo "calvane run two-pipelines.ini"
calvane run "$description" --log 'IniPluginConfig=error,*=information' --log-file demo.log

echo "What the threads logged:"
sed 's/^/    /' demo.log

same() { # WHAT FILE REFERENCE
    cmp "$2" "$3"
    echo "$1: $(stat -c %s "$2") bytes, identical"
}
echo "Comparing:"
same "  archive.bin with input.bin" archive.bin input.bin
tail -c +$((2 * block + 1)) input.bin | head -c $((2 * block)) > expected.bin || true
same "  excerpt.bin with blocks 3 and 4 of input.bin" excerpt.bin expected.bin
tail -c +$((39 * 1048576 + 1)) input.bin | head -c 1048576 > expected.bin || true
same "  latest.bin with block 40 of input.bin" latest.bin expected.bin
echo "All copies are right."
