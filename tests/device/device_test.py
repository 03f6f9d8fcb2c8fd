#!/usr/bin/env python3
"""Tests calvane on an emulated 32-bit ARM device:

    device_test.py IMAGE FOLDER BINARIES [--only NAME ...] [--cuts N] [--hour SECONDS] [--seed N]

IMAGE is the folder that make_image.sh makes, FOLDER where the device is kept, BINARIES has this machine's own programs,
which read the device's cards. Needs root, since cards are mounted. Exit status: 0 all was right, 1 something was not."""

import argparse
import hashlib
import os
import pathlib
import shutil
import sys
import time

from emulator import Card, Device, Fault, wait_until
from outside import Outside, parse_records
from power_cuts import Life

UNIT = "calvane-recorder"
# What cards come with that keeps what it should: how it is made, how it is mounted for the recorder, and what repairs it.
OTHER_FILE_SYSTEMS = {
    "f2fs": ("mkfs.f2fs -q -f", "noatime", "fsck.f2fs -a"),
    "exfat": ("mkfs.exfat", "noatime,uid=calvane,gid=calvane,fmask=0077,dmask=0077", "fsck.exfat -y"),
}
NOTHING_IS_SYNCED = "/etc/systemd/system/calvane-recorder.service.d/no-sync.conf"


def expect(what, condition):
    if not condition:
        raise Fault(what)


class OnDevice:
    """Reads cards with other file systems on the device itself, whose kernel knows them."""

    def __init__(self, device, kind, folder):
        self._device, self._kind, self._image = device, kind, folder / "pushed.img"

    def mount(self):
        _, options, repair = OTHER_FILE_SYSTEMS[self._kind]
        self._device.shell(f"{repair} /dev/mmcblk0 >/dev/null; mount -t {self._kind} -o {options} /dev/mmcblk0 /media/sd && "
                           f"{{ test {self._kind} != f2fs || chown calvane: /media/sd; }}; systemctl start {UNIT}")

    def make(self):
        make, *_ = OTHER_FILE_SYSTEMS[self._kind]
        self._device.wait_for_shell()
        self._device.wait_for_recording() # On the card as it was made: before, it may be about to be mounted.
        self._device.shell(f"systemctl stop {UNIT}; umount /media/sd && {make} /dev/mmcblk0")
        self.mount()

    def records(self, image):
        """As Outside.records. The file system is repaired as at any boot."""
        device = self._device
        device.shell(f"systemctl stop {UNIT}; umount /media/sd", check=False)
        device.pull_card()
        wait_until("the pull is noticed", lambda: "gone" in device.shell("test -e /dev/mmcblk0 || echo gone", check=False))
        shutil.copyfile(image, self._image)
        device.push_card(Card(self._image))
        wait_until("the card is there", lambda: "there" in device.shell("test -e /dev/mmcblk0 && echo there", check=False))
        self.mount()
        device.wait_for_recording()
        records = {track: parse_records(device.shell(f"calvane-recording read --track {track} --list"))
                   for track in ("video", "audio")}
        device.shell(f"systemctl stop {UNIT}; calvane-store verify /media/sd")
        return records


class DeviceTest:
    def __init__(self, options):
        self._image, self._folder, self._options = options.image, options.folder, options
        self._outside = Outside(options.binaries.resolve(), options.folder / "outside")
        self._device = Device(options.folder, options.image)

    def _new_card(self, mebibytes=128):
        return Card(self._folder / "card.img").make(self._device.owner(), mebibytes)

    def _property(self, name):
        return self._device.shell(f"systemctl show --property {name} --value {UNIT}").strip()

    def _recorded(self):
        return {track: parse_records(self._device.shell(f"calvane-recording read --track {track} --list"))
                for track in ("video", "audio")}

    def _shut(self, *there):
        """Switches it off; the records must be on its card, which must be good."""
        self._device.power_off()
        found = self._outside.records(self._folder / "card.img")
        for records in there:
            for track, some in records.items():
                expect(f"{len(some - found[track])} of {len(some)} records of {track} are not on the card",
                       some <= found[track])
        return found

    # What is tested

    def test_clock_of_1970(self):
        """The clock begins in 1970: nothing is recorded, and nothing lost, before it is set."""
        device, card = self._device, self._new_card()

        def expect_waiting(when):
            wait_until("the recorder waits", lambda: device.status().get("state") == "waiting")
            time.sleep(5)
            expect(f"it records {when}: {device.status()}", device.records() == 0)

        device.start(card)
        device.wait_for_recording()
        before = self._recorded()
        self._shut(before)
        device.start(card, clock="1970-01-02T00:00:00") # systemd makes its own age of that, which is as wrong.
        expect_waiting("with a clock that is behind the card")
        device.shell(f"systemctl stop {UNIT}; date --set @100000; systemctl start {UNIT}")
        expect_waiting("in 1970")
        device.shell(f"date --set @{int(time.time())}")
        device.wait_for_recording()
        expect("there are records of 1970", min(self._recorded()["video"]) == min(before["video"]))
        self._shut(before)

    def test_watchdog(self):
        """systemd starts a frozen recorder again, one that was killed, and one that crashed."""
        device = self._device
        device.start(self._new_card())
        device.wait_for_recording()
        kept = []
        for number, signal in enumerate(("STOP", "KILL", "SEGV"), 1):
            time.sleep(3)
            kept.append(self._recorded())
            device.shell(f"systemctl kill --signal={signal} {UNIT}")
            wait_until(f"it is started again after SIG{signal}", lambda n=number: int(self._property("NRestarts")) >= n)
            device.wait_for_recording()
        said = device.shell(f"journalctl --no-pager -o cat -u {UNIT}")
        expect("the watchdog did not end the frozen recorder: " + said, "Watchdog timeout" in said)
        # Killed is not cut: the kernel writes what the process had written.
        self._shut(kept[-1])

    def test_pulled_card(self):
        """Ten times the card is pulled while it records."""
        device, card, kept = self._device, self._new_card(), []
        device.start(card)
        for number in range(10):
            device.wait_for_recording()
            time.sleep(2)
            records = self._recorded()
            device.shell("sync") # What was not yet durable may be lost with the card.
            kept.append(records)
            pid = self._property("MainPID")
            device.pull_card()
            wait_until("the pull is noticed", lambda: device.status().get("state") == "card-away")
            wait_until("the card is unmounted",
                       lambda: "gone" in device.shell("mountpoint -q /media/sd || echo gone", check=False))
            time.sleep(number % 3)
            device.push_card(card)
            wait_until("it records again", lambda: device.status().get("state") == "recording")
            expect("the recorder was started again", self._property("MainPID") == pid)
        device.wait_for_recording()
        coverage = device.shell("calvane-recording coverage --track video")
        expect(f"the history has not the pulls: {coverage}", coverage.count("no card") >= 10)
        self._shut(*kept)

    def test_full_card(self):
        """A card that gets full: the oldest gives way, and recording goes on."""
        device = self._device
        device.start(self._new_card(64))
        device.wait_for_recording()

        def oldest():
            """It may be erased while it is read, which the reader calls a fault."""
            return min(parse_records(device.shell("calvane-recording read --track audio --list 2>/dev/null", check=False)), default=None)
        first = oldest()
        device.shell("fallocate -l $(($(df --output=avail -B1 /media/sd | tail -n 1) - 2000000)) /media/sd/filler")
        wait_until("the oldest gives way", lambda: (oldest() or first) > first, 600, 2)
        device.wait_for_recording()
        used = int(device.shell("df --output=pcent /media/sd | tail -n 1").strip(" %\n"))
        expect(f"{used} % of the card are taken", used <= 98)
        device.shell("rm /media/sd/filler") # A recorder that starts refuses a card with other things on it.
        self._shut()

    def test_export(self):
        """What the device exports has the same bytes as what is exported of its card elsewhere."""
        device = self._device
        device.start(self._new_card())
        device.wait_for_recording()
        time.sleep(15)
        times = sorted(when for when, _ in self._recorded()["video"])
        span = ("--from", times[len(times) // 4], "--to", times[3 * len(times) // 4])
        device.shell(f"calvane-recording export {' '.join(span)} /root/clip.mp4")
        exported = device.shell("sha256sum /root/clip.mp4").split()[0]
        self._shut()
        clip = self._outside.export(self._folder / "card.img", *span)
        expect("the two exports differ", hashlib.sha256(clip.read_bytes()).hexdigest() == exported)
        print(f"  {clip.stat().st_size} bytes, the same")

    def test_power_cut(self):
        """The power is cut while it records, with a card that writes at once and with one that has a cache; then the card
        is in any of the states in which it may be. The last one is used again."""
        faults, cuts = [], self._options.cuts
        state, card = self._folder / "state.img", self._folder / "card.img"
        for number, (cached, in_order) in enumerate(((False, False), (True, False), (True, True))):
            print(f"  a card {'with' if cached else 'without'} a cache, {'after a stop' if in_order else 'recording'}",
                  flush=True)
            self._new_card()
            life = Life(self._device, card, self._folder / "life", cached)
            life.go(40, in_order)
            share = cuts * (number + 1) // 3 - cuts * number // 3
            faults += life.check(self._outside, share, self._options.seed + number, state)
            shutil.copyfile(state, card)
            self._device.start(Card(card), cached=cached, fresh=False)
            self._device.wait_for_recording()
            self._shut(self._recorded())
        expect("\n".join(faults), not faults)

    def test_power_cut_is_noticed(self):
        """Where the recorder's syncs do nothing, the test above finds losses."""
        device = self._device
        device.start(self._new_card())
        library = device.shell("ls /usr/lib/*/libeatmydata.so").strip()
        device.shell(f"mkdir -p $(dirname {NOTHING_IS_SYNCED}); "
                     f"printf '[Service]\\nEnvironment=LD_PRELOAD={library}\\n' >{NOTHING_IS_SYNCED}")
        device.power_off()
        for cached in (False, True):
            life = Life(device, self._new_card().path, self._folder / "life", cached, fresh=False)
            life.go(20, in_order=False)
            faults = life.check(self._outside, 5, self._options.seed, self._folder / "state.img")
            expect(f"nobody noticed that nothing was synced, with cached = {cached}", faults)

    def test_other_file_systems(self):
        """Cards with file systems that the package's rule does not mount: what survives a power cut there."""
        device, faults = self._device, []
        for kind in OTHER_FILE_SYSTEMS:
            print(f"  {kind}", flush=True)
            life = Life(device, self._new_card().path, self._folder / "life", cached=False)
            try:
                there = OnDevice(device, kind, self._folder)
                there.make()
                life.go(20, in_order=False)
                device.start(self._new_card(), fresh=False)
                device.wait_for_recording()
                found = life.check(there, 4, self._options.seed, self._folder / "state.img")
                faults += [f"{kind}: {fault}" for fault in found]
            except Fault as fault:
                print(f"  {fault}", flush=True)
                faults.append(f"{kind}: {fault}")
            device.cut_power()
        expect("\n".join(faults), not faults)

    def test_figures(self):
        """What the process takes, while it records for a while; it must not grow."""
        device, seconds = self._device, self._options.hour
        device.start(self._new_card(64))
        device.wait_for_recording()
        device.shell("calvane-recording retention set 1min") # What is kept does not grow either.
        time.sleep(90)
        figures = [self._figures()]
        for _ in range(max(2, seconds // 60)):
            time.sleep(seconds / max(2, seconds // 60))
            figures.append(self._figures())
        first, last = figures[0], figures[-1]
        spent = (last["cpu"] - first["cpu"]) / (last["at"] - first["at"])
        print(f"  {last['at'] - first['at']:.0f} s: {100 * spent:.1f} % of the emulated processor; resident "
              f"{first['VmRSS']} KiB, at the end {last['VmRSS']}, at most {last['VmHWM']}; of it not of files "
              f"{first['RssAnon']} and {last['RssAnon']} KiB; address space {last['VmSize']} KiB; {last['Threads']} threads, "
              f"{first['files']} and {last['files']} descriptors")
        for what in ("RssAnon", "Threads", "files"):
            middle = max(each[what] for each in figures[:len(figures) // 2 + 1])
            expect(f"it grows: {what} {[each[what] for each in figures]}", last[what] <= middle * 1.05 + 8)
        expect("it was started again", first["pid"] == last["pid"])
        self._shut()

    def _figures(self):
        pid = self._property("MainPID")
        said = self._device.shell(f"cat /proc/{pid}/status; ls /proc/{pid}/fd | wc -l; cat /proc/{pid}/stat")
        lines = said.splitlines()
        figures = {key: int(value.split()[0]) for key, _, value in (line.partition(":") for line in lines)
                   if key in ("VmRSS", "VmHWM", "VmSize", "RssAnon", "Threads")}
        times = lines[-1].rpartition(")")[2].split()
        return dict(figures, pid=pid, at=time.monotonic(), files=int(lines[-2]), cpu=(int(times[11]) + int(times[12])) / 100)

    # All of it

    def go(self):
        failed = []
        names = [name for name in dir(self) if name.startswith("test_")]
        for name in names:
            if self._options.only and name.removeprefix("test_") not in self._options.only:
                continue
            begin = time.monotonic()
            print(f"== {name}: {getattr(self, name).__doc__.splitlines()[0]}", flush=True)
            try:
                getattr(self, name)()
                print(f"   passed ({time.monotonic() - begin:.0f} s)", flush=True)
            except Fault as fault:
                failed.append(name)
                print(f"   FAILED ({time.monotonic() - begin:.0f} s): {fault}", flush=True)
                if self._device.path("console.log").exists():
                    shutil.copyfile(self._device.path("console.log"), self._folder / f"{name}.console.log")
            finally:
                self._device.cut_power()
        print(f"{len(failed)} failed{': ' if failed else ''}{', '.join(failed)}")
        return 1 if failed else 0


def main():
    parser = argparse.ArgumentParser(prog="device_test.py", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("image", type=pathlib.Path)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--only", nargs="+", metavar="NAME", help="of the tests, without test_")
    parser.add_argument("--cuts", type=int, default=50, help="how many power cuts (50)")
    parser.add_argument("--hour", type=int, default=120, metavar="SECONDS", help="for how long figures are taken (120)")
    parser.add_argument("--seed", type=int, default=int(time.time()))
    options = parser.parse_args()
    if os.geteuid() != 0:
        print("device_test.py: only root may mount cards", file=sys.stderr)
        return 2
    print(f"seed {options.seed}", flush=True)
    options.folder.mkdir(parents=True, exist_ok=True)
    return DeviceTest(options).go()


if __name__ == "__main__":
    sys.exit(main())
