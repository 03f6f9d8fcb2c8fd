"""An emulated 32-bit ARM device with a card: qemu-system-arm on the disk that make_image.sh makes."""

import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

# What a command may take at most; an emulator that shares two processors with others is slow.
PATIENCE = 300
BOOT_PATIENCE = 600


class Fault(Exception):
    """What was not as it should be."""


def run(*command, timeout=600, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, timeout=timeout,
                          **options)
    if done.returncode != 0:
        raise Fault(f"{' '.join(map(str, command))}: status {done.returncode}: {(done.stdout + done.stderr).strip()[-2000:]}")
    return done.stdout


def wait_until(what, condition, timeout=PATIENCE, pause=0.5):
    """The first value of `condition` that counts as true; a Fault when there is none in time."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise Fault(f"not within {timeout} s: {what}")
        time.sleep(pause)


class Card:
    """An image of a card, and the log of what is written to it, if there is to be one."""

    def __init__(self, path, log=None):
        self.path, self.log = pathlib.Path(path), log and pathlib.Path(log)

    def make(self, owner, mebibytes=128):
        """A new ext4 with the label that has it mounted; `owner` is Device.owner(). The size is a power of two."""
        with open(self.path, "wb") as image:
            image.truncate(mebibytes << 20)
        run("mkfs.ext4", "-q", "-F", "-b", "4096", "-m", "0", "-L", "calvane", "-E", f"root_owner={owner}", self.path)
        return self

    def node(self, name):
        """What qemu is told of it."""
        image = {"driver": "file", "filename": str(self.path), "cache": {"no-flush": True}}
        if self.log is None:
            return {"driver": "raw", "node-name": name, "file": image}
        self.log.write_bytes(b"")
        return {"driver": "blklogwrites", "node-name": name, "file": image,
                "log": {"driver": "file", "filename": str(self.log), "cache": {"no-flush": True}}}


class Device:
    """The device in a folder of its own, which holds its disk, its sockets and what its console said.

    Threads:  one, and one of its own that takes what the device tells on a port (see listen).
    Errors:   Fault."""

    def __init__(self, folder, image):
        self._folder, self._image = pathlib.Path(folder).absolute(), pathlib.Path(image).absolute()
        self._process = self._qmp = self._control = None
        self._commands = self._cards = 0
        self._rest = b""

    def path(self, name):
        return self._folder / name

    def owner(self):
        """Whom a card's root belongs to: the numbers of the recorder's user and group."""
        users = run("debugfs", "-R", "cat /etc/passwd", self._image / "root.img")
        return re.search(r"^calvane:[^:]*:(\d+:\d+):", users, re.MULTILINE).group(1)

    def pid(self):
        """Of the emulator when it runs, or None."""
        try:
            pid = int(self.path("pid").read_text())
            return pid if b"qemu-system-arm" in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes() else None
        except (OSError, ValueError):
            return None

    def start(self, card=None, cached=False, clock=None, fresh=True):
        """Switches it on. `cached`: the card has a volatile cache, which the kernel has to flush; that is a disk beside
        the card's controller then. `clock`: when its clock begins, now if not given."""
        if shutil.which("qemu-system-arm") is None:
            raise Fault("there is no qemu-system-arm; ./dev setup --device installs it")
        if self.pid():
            raise Fault(f"a device runs in {self._folder}")
        self._folder.mkdir(parents=True, exist_ok=True)
        disk = self.path("disk.qcow2")
        if fresh or not disk.exists():
            run("qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", self._image / "root.img", disk)
        command = ["qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-m", "512", "-display", "none",
                   "-nic", "none", "-no-reboot", "-kernel", self._image / "vmlinuz", "-initrd", self._image / "initrd.img",
                   "-append", "root=/dev/vda rw console=ttyAMA0 quiet net.ifnames=0 mitigations=off",
                   "-object", "rng-random,id=random,filename=/dev/urandom", "-device", "virtio-rng-pci,rng=random",
                   "-blockdev", json.dumps({"driver": "qcow2", "node-name": "root", "file":
                                            {"driver": "file", "filename": str(disk), "cache": {"no-flush": True}}}),
                   "-device", "virtio-blk-pci,drive=root", "-device", "sdhci-pci", "-device", "virtio-serial-pci",
                   "-qmp", f"unix:{self.path('qmp')},server=on,wait=off",
                   "-chardev", f"socket,id=console,path={self.path('console')},server=on,wait=off,"
                               f"logfile={self.path('console.log')}", "-serial", "chardev:console"]
        for port in ("control", "told"):
            command += ["-chardev", f"socket,id={port},path={self.path(port)},server=on,wait=off",
                        "-device", f"virtserialport,chardev={port},name={port}"]
        if clock:
            command += ["-rtc", f"base={clock},clock=host"]
        if card:
            device = "virtio-blk-pci,id=card,drive=card" if cached else "sd-card,id=card,drive=card"
            command += ["-blockdev", json.dumps(card.node("card")), "-device", device]
        with open(self.path("emulator.log"), "wb") as log:
            # pylint: disable=consider-using-with
            self._process = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL, stdout=log,
                                             stderr=subprocess.STDOUT, start_new_session=True)
        self.path("pid").write_text(str(self._process.pid))
        wait_until("the emulator starts: " + self.path("emulator.log").read_text(),
                   lambda: self.path("qmp").exists() or self._process.poll() is not None, 30, 0.1)
        if self._process.poll() is not None:
            raise Fault("the emulator ended: " + self.path("emulator.log").read_text())

    def cut_power(self):
        """As at any moment: what is under way is not finished."""
        pid = self.pid()
        if pid:
            os.kill(pid, signal.SIGKILL)
        self._ended()

    def power_off(self):
        """In order."""
        self.shell("systemctl poweroff --no-block", check=False)
        wait_until("it powers off", lambda: not self.pid(), BOOT_PATIENCE)
        self._ended()

    def _ended(self):
        if self._process:
            self._process.wait(timeout=30)
        else:
            wait_until("the emulator ends", lambda: not self.pid(), 30)
        self.disconnect()
        for name in ("pid", "qmp", "console", "control", "told"):
            self.path(name).unlink(missing_ok=True)

    def disconnect(self):
        for end in (self._qmp, self._control):
            if end:
                end.close()
        self._process = self._qmp = self._control = None

    # The monitor

    def monitor(self, command, **arguments):
        if self._qmp is None:
            connection = self._connect("qmp")
            self._qmp = connection.makefile("rw")
            connection.close() # The file keeps it.
            self._qmp.readline()
            self.monitor("qmp_capabilities")
        self._qmp.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self._qmp.flush()
        while True:
            answer = json.loads(self._qmp.readline() or '{"error": "the emulator has ended"}')
            if "return" in answer:
                return answer["return"]
            if "error" in answer:
                raise Fault(f"{command}: {answer['error']}")

    def pull_card(self):
        self.monitor("blockdev-remove-medium", id="card")

    def push_card(self, card):
        """Another one, or the same again."""
        self._cards += 1
        name = f"card{os.getpid()}-{self._cards}"
        self.monitor("blockdev-add", **card.node(name))
        self.monitor("blockdev-insert-medium", id="card", **{"node-name": name})

    def _connect(self, name):
        end = socket.socket(socket.AF_UNIX)
        try:
            end.connect(str(self.path(name)))
        except OSError as problem:
            raise Fault(f"no device runs in {self._folder}: {problem}") from problem
        return end

    # The shell

    def wait_for_shell(self):
        """Until it has booted so far."""
        self._control = self._connect("control")
        deadline = time.monotonic() + BOOT_PATIENCE
        while True:
            try:
                if self.shell("echo booted", timeout=5) == "booted\n":
                    return
            except Fault as fault:
                if time.monotonic() >= deadline or not self.pid():
                    raise Fault("it does not boot; its console said: " +
                                self.path("console.log").read_text(errors="replace")[-1500:]) from fault

    def shell(self, command, timeout=PATIENCE, check=True):
        """What a command prints on the device, standard error included."""
        if self._control is None:
            self.wait_for_shell()
        self._commands += 1
        mark = f"@{os.getpid()}-{self._commands}@"
        self._control.settimeout(timeout)
        deadline = time.monotonic() + timeout
        self._control.sendall(f"{{ {command}\n}} </dev/null 2>&1; printf '{mark}%d\\n' $?\n".encode())
        pattern = re.compile(mark.encode() + rb"(\d+)\n")
        data, searched = bytearray(self._rest), 0
        while not (found := pattern.search(data, searched)):
            searched = max(0, len(data) - len(mark) - 8)
            try:
                some = self._control.recv(65536)
            except TimeoutError:
                some = b""
            if not some or time.monotonic() >= deadline:
                self._rest = b""
                raise Fault(f"no answer within {timeout} s: {command}; so far: {data[-500:]!r}")
            data += some
        self._rest = bytes(data[found.end():])
        output = re.sub(rb"@\d+-\d+@\d+\n", b"", data[:found.start()]).decode(errors="replace") # Late answers.
        if check and found.group(1) != b"0":
            raise Fault(f"{command}: status {found.group(1).decode()}: {output[-1500:]}")
        return output

    def listen(self, take):
        """Has `take` called with each line that the device writes to /dev/virtio-ports/told, until it ends."""
        end = self._connect("told")

        def go():
            with end, end.makefile("r", errors="replace") as lines:
                try:
                    for line in lines:
                        take(line.rstrip("\n"))
                except OSError:
                    pass # It was switched off.
        thread = threading.Thread(target=go, daemon=True)
        thread.start()
        return thread

    # The recorder

    def status(self):
        try:
            return json.loads(self.shell("calvane-recording status --json", check=False))
        except json.JSONDecodeError:
            return {}

    def records(self):
        """How many it has recorded since it was started; None while it does not answer."""
        tracks = self.status().get("tracks")
        return None if tracks is None else sum(track["records"] for track in tracks.values() if track)

    def wait_for_recording(self, timeout=PATIENCE):
        """Until records come."""
        before = None

        def more():
            nonlocal before
            now = self.records()
            came, before = now is not None and before is not None and now > before, now
            return came
        try:
            wait_until("records come", more, timeout)
        except Fault as fault:
            log = self.shell("journalctl --no-pager -o cat -n 15 -u calvane-recorder", check=False)
            raise Fault(f"{fault}; status: {self.status()}; log: {log}") from fault
