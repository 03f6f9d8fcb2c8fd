#!/usr/bin/env bash
# Measures the framework beside other programs and prints one table. ./dev bench builds first and then calls this.
# Usage: run.sh [--quick] [--rounds N]          the framework
#        run.sh store [--quick] [--rounds N]    the recording store; as root, since it makes a loop device
#        run.sh recorder [--quick] [--rounds N] the recorder's library and service; as root, to empty the page cache
#        run.sh media [--quick] [--rounds N]    recording and exporting media; as root, to empty the page cache
#        run.sh web [--quick]                   the page's server, and the page in a browser
#        run.sh fleet [--quick]                 the copy of recordings in the streams of a fleet
#        run.sh arm [--quick]                   instructions on x86-64 and on 32-bit ARM, which build/armhf has
#        run.sh middleware [ARGS]               services, settings, logging; ARGS go to Google Benchmark
#        run.sh whole [--quick] [--runs N]      the first three, several times; the medians, beside their limits; as root
#        run.sh smoke                           each of them once, as little as possible: whether they still run; as root
# CALVANE_BENCH_BUILD: the folder of the build, build/bench when not set
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=${CALVANE_BENCH_BUILD-build/bench}
for program in calvane_bench calvane calvane_store_bench calvane_middleware_bench calvane_recorder_bench; do
    if [[ ! -x $build/bin/$program ]]; then
        echo "bench: there is no $build/bin/$program; build it with ./dev bench, or set CALVANE_BENCH_BUILD" >&2
        exit 2
    fi
done
if [[ ${1-} == smoke ]]; then
    "$0" whole --smoke
    "$0" media --smoke
    "$0" web --smoke
    "$0" fleet --smoke
    if [[ -x build/armhf/bin/calvane_paths ]]; then
        "$0" arm --smoke
    else
        echo "bench: instructions are not counted: there is no build/armhf" >&2
    fi
    exec "$0" middleware --benchmark_repetitions=1 --benchmark_report_aggregates_only=false --benchmark_min_time=0.001
fi
if [[ ${1-} == middleware ]]; then
    shift
    # Rounds by turns, and their medians: others use the machine, too.
    exec dbus-run-session -- "$build/bin/calvane_middleware_bench" --benchmark_repetitions=9 \
        --benchmark_enable_random_interleaving=true --benchmark_min_time=0.2 \
        --benchmark_report_aggregates_only=true "$@"
fi
if [[ ${1-} == web && ! -x $build/bin/calvane-web ]]; then
    echo "bench: there is no $build/bin/calvane-web: configuring says what is missing" >&2
    exit 2
fi
if [[ ${1-} == web ]]; then
    shift
    dbus-run-session -- python3 -B bench/web.py --build "$build" "$@"
    # Debian's python3 has selenium, another one may not.
    python=/usr/bin/python3
    exec "$([[ -x $python ]] && echo $python || echo python3)" -B bench/web_page.py --build "$build" "$@"
fi
if [[ ${1-} == fleet ]]; then
    shift
    if [[ ! -x $build/bin/bench_fleet_publish ]]; then
        echo "bench: there is no $build/bin/bench_fleet_publish: libnats-dev is not installed" >&2
        exit 2
    fi
    exec python3 -B bench/fleet.py --build "$build" "$@"
fi
if [[ ${1-} == recorder || ${1-} == media || ${1-} == arm ]]; then
    script=${1/arm/instructions}
    shift
    exec dbus-run-session -- python3 -B "bench/$script.py" --build "$build" "$@"
fi
script=side_by_side
if [[ ${1-} == store || ${1-} == whole ]]; then
    script=$1
    shift
fi
exec python3 -B "bench/$script.py" --build "$build" "$@"
