# SPDX-License-Identifier: Apache-2.0
"""Frames between the processes of one device, through shared memory.

    from zav_shm import Subscriber

    for frame in Subscriber("RECODER", producer="CAM_LOOP", start="last_key_frame"):
        print(frame.sequence, len(frame), frame.is_key_frame)

Frames are read in place: `frame.payload` is a memoryview of the producer's history, and
`frame.is_whole()` tells afterwards whether it was overwritten meanwhile. It stands on the C
interface, libzav_shm_c.so.0.
"""

from ._endpoint import State
from ._errors import (BadArgument, Busy, Closed, Error, Failed, Interrupted, NoRing, NotServed,
                      OutOfMemory, Overwritten, Refused, Timeout, TooLarge)
from ._frame import Flag, Frame
from ._library import version
from ._publisher import Format, Loan, Publisher
from ._subscriber import Subscriber

__all__ = [
    "BadArgument", "Busy", "Closed", "Error", "Failed", "Flag", "Format", "Frame", "Interrupted",
    "Loan", "NoRing", "NotServed", "OutOfMemory", "Overwritten", "Publisher", "Refused", "State",
    "Subscriber", "Timeout", "TooLarge", "version",
]
