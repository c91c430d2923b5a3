#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Frame sizes and key-frame intervals of a stream: as figures, and as a plot where there is
matplotlib.

    frame_sizes.py [PRODUCER] [SECONDS] [PLOT.png]      CAM_LOOP, 10, frame_sizes.png
"""

import sys
import time
from statistics import mean, median

from zav_shm import Subscriber, Timeout

# %% Read for some seconds. Sizes and times are all that is looked at: nothing is copied.

producer = sys.argv[1] if len(sys.argv) > 1 else "CAM_LOOP"
seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 10.0
plot = sys.argv[3] if len(sys.argv) > 3 else "frame_sizes.png"

times, sizes, keys, lost = [], [], [], 0
end = time.monotonic() + seconds
with Subscriber(producer=producer) as reader:  # a tap: no name, no center
    while (left := end - time.monotonic()) > 0:
        try:
            frame = reader.receive(left)
        except Timeout as why:
            print(why)
            break
        times.append(frame.publish_ns / 1e9)
        sizes.append(len(frame))
        keys.append(frame.is_key_frame)
        lost += frame.lost

# %% In figures

if not sizes:
    sys.exit(f"{producer}: no frame within {seconds:g} s")
key_times = [at for at, key in zip(times, keys) if key]
intervals = [after - before for before, after in zip(key_times, key_times[1:])]
print(f"{producer}: {len(sizes)} frames, {sum(sizes)} bytes in {seconds:g} s, lost {lost}")
for name, is_key in (("key frames", True), ("others", False)):
    group = [size for size, key in zip(sizes, keys) if key is is_key]
    if group:
        print(f"{name:>11}: {len(group)}, bytes: median {median(group):.0f}, greatest {max(group)}")
if intervals:
    print(f"  intervals: mean {mean(intervals):.3f} s, longest {max(intervals):.3f} s")

# %% And as a plot

try:
    import matplotlib
except ImportError:
    sys.exit(0)
matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402

figure, (above, below) = pyplot.subplots(2, 1, figsize=(10, 6), layout="constrained")
above.bar([at - times[0] for at in times], [size / 1024 for size in sizes], width=0.02,
          color=["tab:red" if key else "tab:blue" for key in keys])
above.set(title=f"{producer}: frames, key frames in red", xlabel="s", ylabel="KiB")
below.plot([at - times[0] for at in key_times[1:]], intervals, "o-", color="tab:red")
below.set(title="from one key frame to the next", xlabel="s", ylabel="s", ylim=(0, None))
figure.savefig(plot)
print(f"{plot} is written")
