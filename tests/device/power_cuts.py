"""Power cuts of a device that records: what a client had read of it must be on the card afterwards."""

import shutil
import threading
import time

import card_log
from emulator import Card, Fault
from outside import parse_records

# The recorder promises records after a second and the sync that is under way then. So long may that sync take here.
PROMISED_AFTER = 6
# What a client reads meanwhile.
TELL = """setsid sh -c 'while :; do
    calvane-recording read --track video --list --from -4s; calvane-recording read --track audio --list --from -1s; sleep 0.2
done' >/dev/virtio-ports/told 2>/dev/null </dev/null &"""


class Life:
    """From switching a device on with a card until its power is cut; everything that was written to the card is logged.

    Threads: the one that makes it, and the one that takes what is told."""

    def __init__(self, device, card, folder, cached, fresh=True):
        folder.mkdir(exist_ok=True)
        self._device, self._cached = device, cached
        self._card = Card(card, folder / "card.log")
        self._before = folder / "before.img"
        shutil.copyfile(card, self._before)
        self._lock = threading.Lock()
        self._told = {} # Of each record that a client has read, when it was told first and how many requests there were.
        self._samples = [] # (time, requests so far)
        self._begin, self._stopped = 0, None
        device.start(self._card, cached=cached, fresh=fresh)
        self._log = card_log.CardLog(self._card.log)

    def _take(self, line):
        now = time.monotonic()
        with self._lock:
            moment = self._log.moment()
            for record in parse_records(line):
                self._told.setdefault(record, (now, moment))

    def _sample(self):
        with self._lock:
            self._samples.append((time.monotonic(), self._log.moment()))

    def go(self, seconds, in_order):
        """Records so long, then cuts. `in_order`: the recorder is stopped just before, which makes everything durable."""
        self._device.wait_for_shell()
        self._device.wait_for_recording()
        listening = self._device.listen(self._take)
        self._device.shell(TELL)
        self._sample()
        self._begin = self._samples[0][1]
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(0.1)
            self._sample()
        if in_order:
            self._device.shell("systemctl stop calvane-recorder")
            self._sample()
            self._stopped = self._samples[-1][1]
            time.sleep(1)
        self._device.cut_power()
        listening.join(timeout=30)
        self._sample()
        if not self._told:
            raise Fault("the device told nothing")

    def _durable(self, moment):
        """The records that must be there when so many requests were seen."""
        at = max((when for when, requests in self._samples if requests <= moment), default=0)
        return {record for record, (when, requests) in self._told.items()
                if when + PROMISED_AFTER <= at or
                (self._stopped is not None and requests <= self._stopped <= moment)}

    def check(self, outside, states, seed, image):
        """Cuts so many times. Gives one text for each that is not as it should be, and says how many records were looked
        for."""
        faults, looked_for = [], 0
        end = self._log.moment()
        chosen = card_log.CardStates(self._before, self._log, self._cached, seed)
        for number in range(states):
            moment = self._begin + (end - self._begin) * (number + 1) // states
            chosen.at(moment, image)
            durable = self._durable(moment)
            looked_for += len(durable)
            try:
                found = set().union(*outside.records(image).values())
                if durable - found:
                    faults.append(f"cut after request {moment} of {end}: {len(durable - found)} of {len(durable)} durable "
                                  f"records are lost, from {min(durable - found)[0]}")
            except Fault as fault:
                faults.append(f"cut after request {moment} of {end}: {fault}")
        for fault in faults:
            print(f"  {fault}", flush=True)
        print(f"  {end - self._begin} requests, {len(self._told)} records told; {states} states, in which {looked_for} "
              f"records were looked for; {len(faults)} with faults", flush=True)
        self._log.close()
        return faults
