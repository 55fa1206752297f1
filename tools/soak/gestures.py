#!/usr/bin/env python3
"""Gestures of the service's multi-touch device against the strokes the emulator drew.

  gestures.py find                     the event node of "velora-multitouch", or exit 1
  gestures.py record DEVICE            contacts as "<monotonic ns> down|up <slot>" lines
  gestures.py compare TRUTH TOUCH      every lit stroke of TRUTH must overlap exactly one
                                       contact of TOUCH; prints the counts, exit 1 if not
"""
import fcntl
import os
import re
import struct
import sys

DEVICE_NAME = "velora-multitouch"
EV_ABS, ABS_MT_SLOT, ABS_MT_TRACKING_ID = 3, 47, 57
EVIOCSCLOCKID = 0x400445A0
CLOCK_MONOTONIC = 1
# Contacts may start and end a little apart from the frames that show the spot: the
# controller holds points back until it knows the gesture.
SLACK_NS = 300_000_000


def find():
    with open("/proc/bus/input/devices") as f:
        blocks = f.read().split("\n\n")
    for block in blocks:
        if f'Name="{DEVICE_NAME}"' in block:
            m = re.search(r"\bevent(\d+)\b", block)
            if m:
                print(f"/dev/input/event{m.group(1)}")
                return 0
    return 1


def record(device):
    fd = os.open(device, os.O_RDONLY)
    fcntl.ioctl(fd, EVIOCSCLOCKID, struct.pack("i", CLOCK_MONOTONIC))
    size = struct.calcsize("llHHi")
    slot = 0
    out = sys.stdout
    while True:
        data = os.read(fd, size * 64)
        for i in range(0, len(data) - size + 1, size):
            sec, usec, kind, code, value = struct.unpack_from("llHHi", data, i)
            if kind != EV_ABS:
                continue
            if code == ABS_MT_SLOT:
                slot = value
            elif code == ABS_MT_TRACKING_ID:
                ns = sec * 1_000_000_000 + usec * 1000
                out.write(f"{ns} {'down' if value >= 0 else 'up'} {slot}\n")
        out.flush()


def compare(truth_path, touch_path):
    strokes = {}  # id -> [first ns, last ns]
    frame_ns = 0
    with open(truth_path) as f:
        for line in f:
            p = line.split()
            if not p:
                continue
            if p[0] == "F":
                frame_ns = int(p[3])
            elif p[0] == "S" and p[-1] != "0":
                span = strokes.setdefault(int(p[2]), [frame_ns, frame_ns])
                span[1] = frame_ns
    contacts = []
    open_contacts = {}
    last_ns = 0
    with open(touch_path) as f:
        for line in f:
            ns, what, slot = line.split()
            ns = int(ns)
            last_ns = max(last_ns, ns)
            if what == "down":
                open_contacts[slot] = ns
            elif slot in open_contacts:
                contacts.append((open_contacts.pop(slot), ns))
    contacts.extend((start, last_ns) for start in open_contacts.values())

    delivered = missing = split = 0
    for sid, (first, last) in sorted(strokes.items()):
        n = sum(1 for a, b in contacts if a <= last + SLACK_NS and b >= first - SLACK_NS)
        if n == 1:
            delivered += 1
        elif n == 0:
            missing += 1
            print(f"stroke {sid}: no contact", file=sys.stderr)
        else:
            split += 1
            print(f"stroke {sid}: {n} contacts", file=sys.stderr)
    print(f"strokes {len(strokes)}, delivered as one gesture {delivered}, missing {missing}, split {split}")
    return 0 if strokes and delivered == len(strokes) else 1


def main(argv):
    if len(argv) >= 2 and argv[1] == "find":
        return find()
    if len(argv) == 3 and argv[1] == "record":
        return record(argv[2])
    if len(argv) == 4 and argv[1] == "compare":
        return compare(argv[2], argv[3])
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
