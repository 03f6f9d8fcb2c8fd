#!/usr/bin/env bash
# A fleet on this machine: three servers that keep every stream three times, a leaf node as on a vehicle or a site, and four
# recorders with a generated picture, each with an uplink through the leaf node. It runs for some seconds, or until Ctrl+C, shows
# what calvane-fleet says, and stops everything. The folder stays. Expects the programs and nats-server in PATH.
# Usage: fleet-demo.sh [--web] [SECONDS [FOLDER [PORT]]]    0 until Ctrl+C; a new folder below /tmp; eight ports from 14222 on
# With --web a page shows the cameras, at the address in CALVANE_DEMO_LISTEN or 127.0.0.1:8080.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
PATH=$PATH:/usr/sbin
web=
if [ "${1-}" = --web ]; then
    web=yes
    shift
fi
seconds=${1-0}
folder=${2-$(mktemp -d /tmp/calvane-fleet-XXXXXX)}
port=${3-14222}
readonly DEVICES=(gate-1 gate-2 yard-1 yard-2)
mkdir -p "$folder"
cd "$folder"

processes=()
finish() {
    trap '' INT TERM
    # The uplinks before the recorders, and these before their buses.
    for ((i = ${#processes[@]} - 1; i >= 0; --i)); do
        kill "${processes[i]}" 2>/dev/null || true
        wait "${processes[i]}" 2>/dev/null || true
    done
    echo "What was recorded, and what the servers have, is in $folder"
}
trap finish EXIT
trap 'exit 0' INT TERM

start() { # LOG COMMAND...: in the background
    "${@:2}" > "$1" 2>&1 &
    processes+=($!)
}

# Clients connect to PORT to PORT + 2 and to the leaf node at PORT + 3; servers find each other behind them.
for number in 0 1 2; do
    cat > "hub-$number.conf" <<CONFIG
server_name: hub-$number
listen: "127.0.0.1:$((port + number))"
jetstream: {store_dir: "$folder/hub-$number", domain: hub}
cluster: {
    name: hub, listen: "127.0.0.1:$((port + 4 + number))"
    routes: ["nats://127.0.0.1:$((port + 4))", "nats://127.0.0.1:$((port + 5))", "nats://127.0.0.1:$((port + 6))"]
}
$([ "$number" -ne 0 ] || echo "leafnodes: {listen: \"127.0.0.1:$((port + 7))\"}")
CONFIG
    start "hub-$number.log" nats-server -c "hub-$number.conf"
done
cat > leaf.conf <<CONFIG
server_name: leaf
listen: "127.0.0.1:$((port + 3))"
leafnodes: {remotes: [{url: "nats://127.0.0.1:$((port + 7))"}]}
CONFIG
start leaf.log nats-server -c leaf.conf

for device in "${DEVICES[@]}"; do
    mkdir -p "$device/card"
    bus=unix:path=$folder/$device/bus
    start "$device/bus.log" dbus-daemon --session --nofork --nopidfile --address="$bus"
    until [ -S "$device/bus" ]; do sleep 0.1; done
    start "$device/recorder.log" env DRENN_BUS="$bus" DRENN_SETTINGS="$folder/$device/settings.db" \
        calvane-recorder --root "$device/card" --log '*=warning' "$here/../test-picture.ini"
    cat > "$device/uplink.ini" <<POLICY
[uplink]
servers = nats://127.0.0.1:$((port + 3))
domain = hub
device = $device
[stream]
replicas = 3
POLICY
    start "$device/uplink.log" env DRENN_BUS="$bus" calvane-uplink "$device/uplink.ini"
done

ask() {
    calvane-fleet --server "nats://127.0.0.1:$port" --domain hub "$@"
}
for _ in $(seq 300); do
    [ "$(ask devices 2>/dev/null | wc -l)" -eq "${#DEVICES[@]}" ] && break
    sleep 0.1
done
echo "Four cameras record and copy through a leaf node into three servers. Ask them:"
echo "    calvane-fleet --server nats://127.0.0.1:$port --domain hub devices"
if [ -n "$web" ]; then
    calvane-web --fleet --listen "${CALVANE_DEMO_LISTEN-127.0.0.1:8080}" \
        --server "nats://127.0.0.1:$port,nats://127.0.0.1:$((port + 1))" --domain hub &
    processes+=($!)
    sleep 1 # It says its address.
fi
if [ "$seconds" -eq 0 ]; then
    echo "Ctrl+C ends it."
    wait "${processes[0]}"
else
    sleep "$seconds"
    ask devices
    ask tracks --device gate-1
    ask coverage --device gate-1
    ask export --device gate-1 --from -3s gate-1.mkv --force
fi
