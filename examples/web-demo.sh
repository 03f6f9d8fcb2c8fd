#!/usr/bin/env bash
# Records a generated picture and a tone with calvane-recorder, on a bus and a card folder of its own, and serves the page that
# shows it, until it is interrupted (Ctrl+C). The folder stays. Expects the programs in PATH.
# Usage: web-demo.sh [ADDRESS:PORT [FOLDER]]    127.0.0.1:8080, or any free port if that is taken; a new folder below /tmp
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
if [ -z "${CALVANE_DEMO_ON_BUS-}" ]; then
    folder=${2-$(mktemp -d /tmp/calvane-demo-XXXXXX)}
    mkdir -p "$folder/card"
    cd "$folder"
    CALVANE_DEMO_ON_BUS=1 exec dbus-run-session -- "$here/web-demo.sh" "$@" 2> >(grep -v 'Failed to set fd limit' >&2)
fi
export DRENN_SETTINGS=$PWD/settings.db
unset DRENN_BUS

listen=${1-127.0.0.1:8080}
if [ $# -eq 0 ] && (: </dev/tcp/127.0.0.1/8080) 2>/dev/null; then
    listen=127.0.0.1:0
fi

finish() {
    trap '' INT TERM
    kill "${web-}" "${recorder-}" 2>/dev/null || true
    wait || true
    echo "The recording is in $PWD/card"
}
trap finish EXIT
trap 'exit 0' INT TERM

calvane-recorder --root card --log '*=warning' "$here/test-picture.ini" &
recorder=$!
for _ in $(seq 100); do
    calvane-recording summary 2>/dev/null | grep -q '^Recorded' && break
    sleep 0.1
done
echo "Recording a generated picture. Ctrl+C ends it."
calvane-web --listen "$listen" &
web=$!
wait -n "$web" "$recorder"
