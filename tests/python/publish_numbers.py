# SPDX-License-Identifier: Apache-2.0
"""publish_numbers.py COUNT BYTES   frames that begin with their number, every tenth a key frame;
then the stream stays open until standard input ends."""

import sys
import time

from zav_shm import Format, Publisher

count, length = int(sys.argv[1]), int(sys.argv[2])
with Publisher("CAM_LOOP", center_wait=0, format=Format("H264", 640, 480, 25)) as camera:
    for number in range(count):
        payload = number.to_bytes(4, "little").ljust(length, b"x")
        camera.publish(payload, key_frame=number % 10 == 0, pts_ns=number * 40_000_000)
        time.sleep(0.002)
    print("published", flush=True)
    sys.stdin.read()
