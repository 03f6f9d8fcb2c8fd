#!/usr/bin/env bash
# Measures the framework beside other programs and prints one table. ./dev bench builds first and then calls this.
# Usage: run.sh [--quick] [--rounds N]    CALVANE_BENCH_BUILD: the folder of the build, build/bench when not set
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=${CALVANE_BENCH_BUILD-build/bench}
for program in calvane_bench calvane; do
    if [[ ! -x $build/bin/$program ]]; then
        echo "bench: there is no $build/bin/$program; build it with ./dev bench, or set CALVANE_BENCH_BUILD" >&2
        exit 2
    fi
done
exec python3 -B bench/side_by_side.py --build "$build" "$@"
