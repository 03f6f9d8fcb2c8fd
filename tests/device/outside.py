"""A card of the device in another machine, this one: mounted by a loop device, read by this machine's own build."""

import contextlib
import os
import re
import subprocess

from emulator import Fault, run, wait_until

TRACKS = ("video", "audio")
RECORD = re.compile(r"^(\S+Z)  (\d+) bytes")


def parse_records(text):
    """What `calvane-recording read --list` prints, as times and lengths."""
    return {match.groups() for line in text.splitlines() if (match := RECORD.match(line))}


@contextlib.contextmanager
def mounted(image, folder):
    place = folder / "mounted"
    place.mkdir(exist_ok=True)
    run("mount", "-o", "loop", image, place)
    try:
        yield place
    finally:
        run("umount", place)


class Outside:
    """Errors: Fault."""

    def __init__(self, binaries, folder):
        self._binaries, self._folder = binaries, folder
        self._folder.mkdir(parents=True, exist_ok=True)
        (folder / "device.ini").write_text("[device]\nmodel.name = Desk\nserial.number = 1\n")

    @contextlib.contextmanager
    def _recorder(self, card):
        """One that records nothing, and answers for the card. Gives what runs a command of its client."""
        with subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address"], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True) as bus:
            env = dict(os.environ, DRENN_BUS=bus.stdout.readline().strip(), DRENN_SETTINGS=str(self._folder / "settings.db"),
                       DRENN_DEVICE_INFORMATION=str(self._folder / "device.ini"))
            with subprocess.Popen([self._binaries / "calvane-recorder", "--root", card, "--log", "*=error"], env=env,
                                  stdout=subprocess.DEVNULL) as recorder:
                def ask(*words):
                    return run(self._binaries / "calvane-recording", *words, env=env)

                def is_there():
                    with contextlib.suppress(Fault):
                        return ask("status")
                try:
                    wait_until("the recorder outside answers", is_there, 30, 0.1)
                    yield ask
                finally:
                    recorder.terminate()
                    recorder.wait(timeout=30)
                    bus.terminate()

    def records(self, image):
        """The records of a card, by tracks. Mounting has the kernel replay its journal, and opening has the store
        recover. Then the store and the file system are checked."""
        with mounted(image, self._folder) as card:
            with self._recorder(card) as ask:
                records = {track: parse_records(ask("read", "--track", track, "--list")) for track in TRACKS}
            run(self._binaries / "calvane-store", "verify", card)
        run("e2fsck", "-fn", image)
        return records

    def export(self, image, *words):
        """The path of what the export makes of the card itself."""
        clip = self._folder / "clip.mp4"
        clip.unlink(missing_ok=True)
        with mounted(image, self._folder) as card:
            run(self._binaries / "calvane-recording", "export", "--card", card, *words, clip)
        return clip
