#!/usr/bin/env bash
# Records test data with calvane-recorder on a bus and a card folder of its own, shows what clients see, and compares
# every record that is read back with what was sent. Expects the programs in PATH.
# Usage: record-demo.sh [SECONDS [FOLDER]]    20 seconds; a temporary folder that is removed if none is named
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
seconds=${1-20}
if [ -z "${CALVANE_DEMO_ON_BUS-}" ]; then
    folder=${2-}
    if [ -z "$folder" ]; then
        folder=$(mktemp -d)
        trap 'rm -rf "$folder"' EXIT
    fi
    mkdir -p "$folder/card"
    cd "$folder"
    CALVANE_DEMO_ON_BUS=1 dbus-run-session -- "$here/record-demo.sh" "$seconds" 2> >(grep -v 'Failed to set fd limit' >&2)
    exit
fi
export DRENN_SETTINGS=$PWD/settings.db
unset DRENN_BUS

finish() {
    kill "${watcher-}" "${recorder-}" 2>/dev/null || true
    wait || true
}
trap finish EXIT

show() {
    echo
    echo "calvane-recording $*"
    calvane-recording "$@" | sed 's/^/    /'
}

echo "calvane-recorder --root card recorder.ini, for $seconds seconds; what calvane-recording watch prints meanwhile:"
calvane-recording watch > >(sed -u 's/^/    /') &
watcher=$!
sleep 0.5
calvane-recorder --root card --log '*=warning' "$here/recorder.ini" &
recorder=$!
for _ in $(seq 100); do
    calvane-recording summary > /dev/null 2>&1 && break
    sleep 0.1
done
sleep "$seconds"
show status
show summary
show tracks
show state
kill -TERM "$recorder"
wait "$recorder"
sleep 0.5
kill "$watcher"
wait "$watcher" 2>/dev/null || true

echo
echo "The recorder again, without pipelines: what it recorded is there."
calvane-recorder --root card --log '*=warning' &
recorder=$!
for _ in $(seq 100); do
    calvane-recording summary > /dev/null 2>&1 && break
    sleep 0.1
done
show history
show coverage
echo
echo "Reading back:"
for track in video audio metadata; do
    calvane-recording read --track "$track" > "$track.bin"
    records=$(calvane-recording read --track "$track" --list | wc -l)
    python3 "$here/check-test-records.py" "$track" "$records" "$track.bin" | sed 's/^/    /'
done
kill -TERM "$recorder"
wait "$recorder"
echo
echo "calvane-store verify card: $(calvane-store verify card | tail -n 1)"
echo "All records are right."
