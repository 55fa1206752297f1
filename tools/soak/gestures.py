#!/usr/bin/env python3
"""Gestures of the service's multi-touch device against the strokes the emulator drew.

  gestures.py find                     the event node of "velora-multitouch", or exit 1
  gestures.py record DEVICE            contacts as "<monotonic ns> down|up <slot>" lines
  gestures.py compare TRUTH TOUCH [SKIP [SCENE]]
                                       every lit stroke of TRUTH must overlap exactly one
                                       contact of TOUCH; prints the counts, exit 1 if not.
                                       TOUCH may also be what velora-desktop-watcher --stamp
                                       printed: a left press to its release is one contact.
                                       Strokes and contacts of the first SKIP seconds (the
                                       service still starting) and strokes cut off by the end
                                       of the run are left out, and so are strokes
                                       during which SCENE's faults stop the frames (short
                                       frames, time-outs): the spot jumps over the gap.
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


def outages(scene_path):
    """(from, to) stream seconds of the scene's faults that stop the frames, and of the input
    mode changes the soak wrote (kind "modechange"), which switch engines, laser and exposure."""
    spans = []
    if scene_path:
        with open(scene_path) as f:
            for line in f:
                p = line.split()
                if len(p) >= 4 and p[0] == "fault" and p[1] in ("short", "timeout", "modechange"):
                    spans.append((float(p[2]), float(p[2]) + float(p[3])))
    return spans


def compare(truth_path, touch_path, skip_seconds=0.0, scene_path=None):
    strokes = {}  # id -> [first ns, last ns]
    seconds = {}  # id -> [first, last] stream seconds
    frame_ns = 0
    frame_t = 0.0
    first_ns = None
    with open(truth_path) as f:
        for line in f:
            p = line.split()
            if not p:
                continue
            if p[0] == "F":
                frame_ns = int(p[3])
                frame_t = float(p[2])
                if first_ns is None:
                    first_ns = frame_ns
            elif p[0] == "S" and p[-1] != "0":
                span = strokes.setdefault(int(p[2]), [frame_ns, frame_ns])
                span[1] = frame_ns
                when = seconds.setdefault(int(p[2]), [frame_t, frame_t])
                when[1] = frame_t
    begin = (first_ns or 0) + int(skip_seconds * 1e9)
    every_stroke = dict(strokes)
    gaps = outages(scene_path)
    interrupted = [sid for sid in strokes if seconds[sid][0] >= skip_seconds
                   and any(a <= seconds[sid][1] + 0.1 and b >= seconds[sid][0] - 0.1 for a, b in gaps)]
    strokes = {sid: span for sid, span in strokes.items()
               if span[0] >= begin and span[1] < frame_ns - SLACK_NS and sid not in interrupted}
    contacts = []
    open_contacts = {}
    last_ns = 0
    with open(touch_path) as f:
        for line in f:
            p = line.split()
            if len(p) < 3 or not p[0].isdigit():
                continue
            ns = int(p[0])
            last_ns = max(last_ns, ns)
            # "<ns> down|up <slot>" from the touch device, "<ns> press|release <button> X Y"
            # from the desktop; other buttons (a long press's right click) are no contact.
            what, slot = p[1], p[2]
            if what in ("press", "release") and slot != "1":
                continue
            if what in ("down", "press"):
                open_contacts[slot] = ns
            elif what in ("up", "release") and slot in open_contacts:
                contacts.append((open_contacts.pop(slot), ns))
    contacts.extend((start, last_ns) for start in open_contacts.values())
    contacts = [(a, b) for a, b in contacts if a >= begin and a < frame_ns - SLACK_NS]

    # Each contact belongs to the one stroke it overlaps longest (with the slack), so that a
    # contact that a fault drew out into the next stroke's slack is not counted twice.
    owner = []
    for a, b in contacts:
        best, best_overlap = None, 0
        for sid, (first, last) in every_stroke.items():
            overlap = min(b, last + SLACK_NS) - max(a, first - SLACK_NS)
            if overlap >= 0 and (best is None or overlap > best_overlap):
                best, best_overlap = sid, overlap
        owner.append(best)

    delivered = missing = split = 0
    for sid in sorted(strokes):
        n = owner.count(sid)
        if n == 1:
            delivered += 1
        elif n == 0:
            missing += 1
            print(f"stroke {sid}: no contact", file=sys.stderr)
        else:
            split += 1
            print(f"stroke {sid}: {n} contacts", file=sys.stderr)
    # A touch where there was none.
    stray = owner.count(None)
    if stray:
        print(f"{stray} contacts without a stroke", file=sys.stderr)
    print(f"strokes {len(strokes)} (and {len(interrupted)} cut by a fault or a mode change), delivered as one gesture {delivered}, missing {missing}, split {split}, "
          f"contacts without a stroke {stray}")
    return 0 if strokes and delivered == len(strokes) and not stray else 1


def main(argv):
    if len(argv) >= 2 and argv[1] == "find":
        return find()
    if len(argv) == 3 and argv[1] == "record":
        return record(argv[2])
    if len(argv) in (4, 5, 6) and argv[1] == "compare":
        return compare(argv[2], argv[3], float(argv[4]) if len(argv) >= 5 else 0.0,
                       argv[5] if len(argv) == 6 else None)
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
