#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Frames per second through one stream at full rate, and the processor time of each end per frame,
in Python beside C++.

    python_rate.py BENCH_FRAME_RATE [FRAMES] [BYTES]      200000 frames of 65536 bytes

The publisher waits for its reader, so nothing is lost; a view is asked whether it is whole, a copy
is one. To be run in namespaces of its own: bench/README.md has the command.
"""

import glob
import os
import resource
import subprocess
import sys
import time

from zav_shm import Overwritten, Publisher, Subscriber

RINGS = "/dev/shm/shm/rings"


def processor_us() -> int:
    """Of this process so far."""
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return int((usage.ru_utime + usage.ru_stime) * 1e6)


def publish(frames: int, length: int) -> None:
    """Until standard input ends."""
    payload = bytes(length)
    with Publisher("CAM_LOOP", center_wait=0, paced=True) as camera:
        begin, begin_us = time.monotonic(), processor_us()
        for _ in range(frames):
            camera.publish(payload)
        print(frames, time.monotonic() - begin, processor_us() - begin_us, 0, flush=True)
        sys.stdin.read()


def read(frames: int, copies: bool) -> None:
    """From the first frame to the last."""
    with Subscriber(producer="CAM_LOOP", timeout=20) as reader:
        reader.receive()
        begin, begin_us, bad = time.monotonic(), processor_us(), 0
        for _ in range(1, frames):
            frame = reader.receive()
            bad += frame.lost
            if not copies:
                bad += not frame.is_whole()
                continue
            try:
                bytes(frame)
            except Overwritten:
                bad += 1
        print(frames - 1, time.monotonic() - begin, processor_us() - begin_us, bad)


def measure(program: str, writer: str, reader: str, how: str, frames: int, length: int) -> None:
    """One line of the table."""
    ends = {"C++": [program], "Python": [sys.executable, __file__]}
    numbers = [str(frames), str(length)]
    reads = subprocess.Popen([*ends[reader], how, *numbers], stdout=subprocess.PIPE, text=True)
    end = time.monotonic() + 20
    while not glob.glob(f"{RINGS}/*.reader"):
        if time.monotonic() > end or reads.poll() is not None:
            sys.exit(f"{reader}, {how}: does not read")
        time.sleep(0.01)
    time.sleep(0.2)
    writes = subprocess.Popen([*ends[writer], "publish", *numbers], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    got = reads.communicate()[0].split()
    wrote = writes.communicate("\n")[0].split()
    print(f"{writer:<8} {reader + ', ' + how:<14} {int(got[0]) / float(got[1]):>9.0f}"
          f" {int(wrote[2]) / int(wrote[0]):>12.1f} {int(got[2]) / int(got[0]):>12.1f} {got[3]:>6}")


def main() -> None:
    """The table, or one end of a stream."""
    arguments = sys.argv[1:] or sys.exit(__doc__)
    frames = int(arguments[1]) if len(arguments) > 1 else 200_000
    length = int(arguments[2]) if len(arguments) > 2 else 65_536
    if arguments[0] == "publish":
        publish(frames, length)
    elif arguments[0] in ("copy", "view"):
        read(frames, arguments[0] == "copy")
    else:
        os.makedirs(RINGS, mode=0o700)  # where readers show that they read
        print(f"{length} bytes  {frames} frames\n"
              "writer   reader         frames/s  writer us/fr reader us/fr    bad")
        for writer, reader in (("C++", "C++"), ("C++", "Python"), ("Python", "C++"),
                               ("Python", "Python")):
            for how in ("view", "copy"):
                measure(arguments[0], writer, reader, how, frames, length)


main()
