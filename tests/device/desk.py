#!/usr/bin/env python3
"""Runs the emulated device on the desk; ./dev device calls it:

    desk.py IMAGE FOLDER up [--fresh] [--clock TIME]   switches it on with its card, and waits until it records
    desk.py IMAGE FOLDER console                        connects the terminal with its serial console; Ctrl+] ends that
    desk.py IMAGE FOLDER record [SECONDS]               records so long (10), exports that and copies it to FOLDER/clip.mkv
    desk.py IMAGE FOLDER run COMMAND ...                runs a command on it as root
    desk.py IMAGE FOLDER pull-card                      pulls its card out
    desk.py IMAGE FOLDER push-card [FILE]               inserts it again, or the image of another card
    desk.py IMAGE FOLDER cut-power                      ends it at once; `up` switches it on again
    desk.py IMAGE FOLDER down                           switches it off in order

IMAGE is the folder that make_image.sh makes, FOLDER where the device is kept. Exit status: 0 done, 1 it failed, 2 a bad
command line."""

import argparse
import base64
import os
import select
import shlex
import socket
import sys
import termios
import time
import tty

from emulator import Card, Device, Fault

LEAVE = b"\x1d" # Ctrl+]


def up(device, options):
    card = Card(device.path("card.img"))
    if options.fresh or not card.path.exists():
        device.path("").mkdir(parents=True, exist_ok=True)
        card.make(device.owner(), 256)
    device.start(card, clock=options.clock, fresh=options.fresh)
    print("It boots, which takes about a minute; its console's output is in", device.path("console.log"), flush=True)
    device.wait_for_shell()
    if options.clock:
        print(device.shell("date; calvane-recording status", check=False), end="")
        return
    device.wait_for_recording()
    print(device.shell("calvane-recording status"), end="")
    print("It records. ./dev device console, record, pull-card, push-card, cut-power or down go on from here.")


def console(device, _options):
    end = socket.socket(socket.AF_UNIX)
    try:
        end.connect(str(device.path("console")))
    except OSError as problem:
        raise Fault(f"no device runs: {problem}") from problem
    print("Ctrl+] leaves the console. Press Return for a prompt.", flush=True)
    is_terminal = sys.stdin.isatty()
    before = termios.tcgetattr(sys.stdin) if is_terminal else None
    try:
        if is_terminal:
            tty.setraw(sys.stdin)
        while True:
            for ready in select.select([sys.stdin, end], [], [])[0]:
                data = os.read(ready.fileno(), 4096)
                if not data or (ready is sys.stdin and LEAVE in data):
                    return
                if ready is sys.stdin:
                    end.sendall(data)
                else:
                    os.write(sys.stdout.fileno(), data)
    finally:
        if is_terminal:
            termios.tcsetattr(sys.stdin, termios.TCSADRAIN, before)
            print()


def record(device, options):
    device.wait_for_recording()
    time.sleep(options.seconds)
    print(device.shell(f"calvane-recording export --force --from -{options.seconds}s /run/clip.mkv && "
                       "calvane-recording status"), end="")
    clip = device.path("clip.mkv")
    clip.write_bytes(base64.b64decode(device.shell("base64 /run/clip.mkv; rm /run/clip.mkv")))
    print("The clip is", clip)


def run_command(device, options):
    sys.stdout.write(device.shell(shlex.join(options.command)))


def push_card(device, options):
    device.push_card(Card(options.file or device.path("card.img")))


def read_command_line():
    parser = argparse.ArgumentParser(prog="device", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("image")
    parser.add_argument("folder")
    verbs = parser.add_subparsers(required=True, metavar="VERB")

    def add(name, action, **defaults):
        verb = verbs.add_parser(name)
        verb.set_defaults(action=action, **defaults)
        return verb
    switch_on = add("up", up)
    switch_on.add_argument("--fresh", action="store_true", help="with a new disk and a new card")
    switch_on.add_argument("--clock", help="when its clock begins, as 1970-01-02")
    add("console", console)
    add("record", record).add_argument("seconds", type=int, nargs="?", default=10)
    add("run", run_command).add_argument("command", nargs=argparse.REMAINDER)
    add("pull-card", lambda device, _: device.pull_card())
    add("push-card", push_card).add_argument("file", nargs="?")
    add("cut-power", lambda device, _: device.cut_power())
    add("down", lambda device, _: device.power_off())
    return parser.parse_args()


def main():
    options = read_command_line()
    try:
        options.action(Device(options.folder, options.image), options)
    except Fault as fault:
        print(f"device: {fault}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
