#!/usr/bin/env bash
# The recorder as systemd runs it, in a machine of its own where the packages were just installed: run as root by
# packages_test.sh. Prints one line for each check, and ends with status 1 after the first that fails.
set -Eeuo pipefail

readonly UNIT=calvane-recorder

tell() {
    systemctl status --no-pager --full --lines 0 "$UNIT" || true
    journalctl --no-pager --unit "$UNIT" --lines 40 || true
}
trap 'echo "failed: line $LINENO"; tell' ERR

check() {
    local what=$1 deadline=$((SECONDS + 40))
    shift
    until "$@" >/tmp/said 2>&1; do
        if ((SECONDS >= deadline)); then
            echo "not so: $what"
            cat /tmp/said
            tell
            exit 1
        fi
        sleep 0.2
    done
    echo "$what"
}

is() { [[ $("${@:2}") == "$1" ]]; }
property() { systemctl show --property "$1" --value "$UNIT"; }
said() { journalctl --quiet --output cat --unit "$UNIT" "${@:2}" | grep -e "$1"; }
ask() { setpriv --reuid=calvane --regid=calvane --init-groups calvane-recording "$@"; }
status_has() { ask status --json | tr -d ' ' | grep -e "$1"; }
has_other_pid() { local now; now=$(property MainPID); [[ $now != 0 && $now != "$1" ]]; }
restarts_past() { (($(property NRestarts) >= $1)); }

insert_card() { mount -t tmpfs -o "size=64m,uid=calvane,gid=calvane,mode=755" card /media/sd; }

check "the system is up" systemctl is-active dbus.service
check "without a description nothing is started, and nothing has failed" is inactive property ActiveState
check "the user owns the settings' folder" is calvane stat --format=%U /var/lib/drenn

ln -s test-picture.ini /etc/calvane/recorder.ini
systemctl start "$UNIT"
check "it runs without a card" is active property ActiveState
check "what to do is a warning in the journal" said "empty place to mount a card" --priority warning
check "what is no warning has another priority" is "" bash -c \
    "journalctl --quiet --output cat --unit $UNIT --priority warning | grep 'Pipeline starting' || true"
check "the journal has no second time" is 0 bash -c "journalctl -o cat -u $UNIT | grep -c '^<\?[0-9]*>\?20[0-9][0-9]-' || true"

insert_card
check "a card that comes later is recorded on" status_has '"recording"'
check "it is the user's own" is calvane stat --format=%U /media/sd/data
pid=$(property MainPID)

systemctl reload "$UNIT"
check "a reload says that nothing has changed" said "says the same as before"
sed 's/^t.pipelines = .*/t.pipelines = nothing/' /etc/calvane/test-picture.ini >/etc/calvane/bad.ini
ln -sf bad.ini /etc/calvane/recorder.ini
systemctl reload "$UNIT"
check "a bad description is refused with its priority" said "is not taken over" --priority err
check "recording goes on in the same process" is "$pid" property MainPID
ln -sf test-picture.ini /etc/calvane/recorder.ini

for signal in KILL TERM HUP ABRT; do
    pid=$(property MainPID)
    kill "-$signal" "$pid"
    if [[ $signal == HUP ]]; then
        sleep 1
        check "SIGHUP ends nothing" is "$pid" property MainPID
        continue
    fi
    check "SIG$signal is followed by a start" has_other_pid "$pid"
    check "it records again" status_has '"recording"'
done

earliest() { ask summary --json | tr -d ' ' | grep -o '"first":"[^"]*"'; }
ask retention set --data 1GiB --settings /var/lib/drenn/settings.db >/dev/null
first=$(earliest)
pid=$(property MainPID)
dpkg --install /later/*.deb >/tmp/upgrade 2>&1 || { tail /tmp/upgrade; false; }
check "an upgrade starts the recorder again" has_other_pid "$pid"
check "it has another version" is "$(dpkg-query --show --showformat='${source:Upstream-Version}' calvane-recorder)" \
    bash -c "calvane-recorder --version | cut -d' ' -f2"
check "it goes on with the same recording" is "$first" earliest
check "settings survive the upgrade" status_has '"limit":1073741824'

systemctl stop "$UNIT"
check "it stops when told" is inactive property ActiveState
cat >/etc/calvane/camera.ini <<'END'
[calvane]
t.pipelines = camera
[camera]
t.pipeline.head = file
[file]
t.plugin.type = FileSource
t.pipeline.next = sink
filename = /dev/no-such-camera
[sink]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = video
END
ln -sf camera.ini /etc/calvane/recorder.ini
systemctl start --no-block "$UNIT"
check "a missing camera is tried again and again" restarts_past 7
ln -sf test-picture.ini /etc/calvane/recorder.ini
check "and recorded as soon as it is there" status_has '"recording"'
systemctl stop "$UNIT"
umount /media/sd
rm /etc/calvane/{recorder,bad,camera}.ini
echo "all is as it should be"
