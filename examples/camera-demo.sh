#!/usr/bin/env bash
# Records a generated picture and a tone with calvane-recorder, on a bus and a card folder of its own, shows what clients see,
# exports five seconds and checks the file with ffprobe. Folder and file stay. Expects the programs in PATH.
# Usage: camera-demo.sh [SECONDS [FOLDER]]    20 seconds, 7 at least; a new folder below /tmp if none is named
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
seconds=${1-20}
if [ -z "${CALVANE_DEMO_ON_BUS-}" ]; then
    if [ "$seconds" -lt 7 ]; then
        echo "camera-demo.sh: five seconds are exported, so record 7 at least" >&2
        exit 2
    fi
    folder=${2-$(mktemp -d /tmp/calvane-demo-XXXXXX)}
    mkdir -p "$folder/card"
    cd "$folder"
    CALVANE_DEMO_ON_BUS=1 dbus-run-session -- "$here/camera-demo.sh" "$seconds" 2> >(grep -v 'Failed to set fd limit' >&2)
    exit
fi
export DRENN_SETTINGS=$PWD/settings.db
unset DRENN_BUS

finish() {
    kill "${recorder-}" 2>/dev/null || true
    wait || true
}
trap finish EXIT

show() {
    echo
    echo "calvane-recording $*"
    calvane-recording "$@" | sed 's/^/    /'
}

echo "calvane-recorder --root card test-picture.ini, for $seconds seconds"
calvane-recorder --root card --log '*=warning' "$here/test-picture.ini" &
recorder=$!
for _ in $(seq 100); do
    calvane-recording summary 2>/dev/null | grep -q '^Recorded' && break
    sleep 0.1
done
sleep "$seconds"
show summary
show tracks
show coverage --from "-$((seconds + 5))s"
show export --from -6s --to -1s clip.mp4

echo
echo "ffprobe clip.mp4"
complaints=$(ffprobe -v warning -show_entries format=duration:format_tags=creation_time:stream=codec_name,width,height,sample_rate \
    -of compact=nokey=0 clip.mp4 2>&1 > probed)
sed 's/^/    /' probed
if [ -n "$complaints" ]; then
    echo "camera-demo.sh: ffprobe complains: $complaints" >&2
    exit 1
fi
duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 clip.mp4)
if ! awk -v duration="$duration" 'BEGIN { exit !(duration >= 4.8 && duration <= 9) }'; then
    echo "camera-demo.sh: clip.mp4 has $duration seconds" >&2
    exit 1
fi
kill -TERM "$recorder"
wait "$recorder"

tool=$(command -v calvane-recording)
cat <<END

The recording is in $PWD/card, the file is $PWD/clip.mp4. Try next:
    ffplay $PWD/clip.mp4
    $tool play --card $PWD/card --player ffplay
    $tool thumbnails --card $PWD/card --every 2s --out $PWD/pictures
END
