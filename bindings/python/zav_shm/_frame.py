# SPDX-License-Identifier: Apache-2.0
"""What a subscriber hands out."""

from __future__ import annotations

import ctypes
from enum import IntFlag
from fractions import Fraction
from typing import TYPE_CHECKING, Any, Optional

from . import _library
from ._errors import Closed, Overwritten, check

if TYPE_CHECKING:
    import numpy.typing


class Flag(IntFlag):
    """What a frame is."""

    KEY_FRAME = 1
    CODEC_CONFIGURATION = 2
    DISCONTINUITY = 4
    END_OF_STREAM = 8
    RECOVERY_POINT = 16
    """No IDR, and still a decoder may begin here."""


class View:
    """A handle of the library, released with the last memoryview of the payload."""

    def __init__(self, handle: int) -> None:
        self.handle = handle

    def __del__(self, release: Any = _library.library.zav_shm_view_release) -> None:
        release(self.handle)  # bound early: the interpreter may be ending


_room_types: dict[int, type[Any]] = {}


def memory_at(address: Optional[int], length: int, owner: object) -> memoryview:
    """Memory of the library, whose owner lives as long as any memoryview of it.

    ctypes makes a type per length, which takes long; these are made once per power of two. Only
    `length` bytes of the room can be reached.
    """
    if not address or length == 0:
        return memoryview(b"")
    power = length.bit_length()
    if power not in _room_types:
        _room_types[power] = type("Room", (ctypes.Array,),
                                  {"_type_": ctypes.c_ubyte, "_length_": 1 << power})
    room = _room_types[power].from_address(address)
    room.owner = owner
    return memoryview(room).cast("B")[:length]


class Frame:
    """One frame, where it lies: without a copy.

    The publisher may overwrite it at any moment, once its history has gone round: what was made of
    `payload` counts only if `is_whole()` says so afterwards. `bytes(frame)` is a copy that is
    checked. A frame may be kept for as long as one likes: it outlives subscriber and publisher.
    """

    __slots__ = ("_said", "_view", "_payload")

    def __init__(self, said: _library.Frame, view: View) -> None:
        self._said = said
        self._view: Optional[View] = view
        self._payload = memory_at(said.payload, said.payload_bytes, view).toreadonly()

    @property
    def payload(self) -> memoryview:
        """The bytes, read-only and in place. A memoryview or array of them keeps them mapped."""
        self._open_view()
        return self._payload

    def is_whole(self) -> bool:
        """Whether no byte of the payload has been overwritten up to now."""
        view, whole = self._open_view(), ctypes.c_int()  # held during the call
        check(_library.library.zav_shm_view_is_whole(view.handle, ctypes.byref(whole)))
        return whole.value != 0

    def __bytes__(self) -> bytes:
        copy = self.payload.tobytes()
        if not self.is_whole():
            raise Overwritten(f"frame {self.sequence} of {len(copy)} bytes was overwritten")
        return copy

    def __len__(self) -> int:
        return int(self._said.payload_bytes)

    def __bool__(self) -> bool:
        return True  # also without a payload

    def numpy(self, dtype: str = "uint8", shape: Optional[tuple[int, ...]] = None,
              ) -> numpy.typing.NDArray[Any]:
        """The payload as a read-only array, without a copy. Needs NumPy.

        Without a shape, a raw picture has rows, columns and, if more than one, values per pixel; one
        with planes of less resolution (I420, NV12) has rows of its width. All else is flat.
        """
        import numpy

        values = numpy.frombuffer(self.payload, dtype=dtype)
        return values.reshape(self._raw_shape(values.size) if shape is None else shape)

    def _raw_shape(self, values: int) -> tuple[int, ...]:
        width, height = self.width, self.height
        if self.codec != "RAW" or not width or not height or not values or values % width:
            return (values,)
        if values == width * height:
            return (height, width)
        if values % (width * height) == 0:
            return (height, width, values // (width * height))
        return (values // width, width)

    def release(self) -> None:
        """Gives the payload up, as `with` does at its end. Memoryviews of it stay valid."""
        self._view = None
        self._payload = memoryview(b"")

    def __enter__(self) -> Frame:
        self._open_view()
        return self

    def __exit__(self, *_: object) -> None:
        self.release()

    def __repr__(self) -> str:
        released = ", released" if self._view is None else ""
        return f"<Frame {self.sequence}: {len(self)} bytes, {self.flags!r}{released}>"

    def _open_view(self) -> View:
        if self._view is None:
            raise Closed(f"frame {self.sequence} is released")
        return self._view

    @property
    def flags(self) -> Flag:
        """What the frame is."""
        return Flag(self._said.flags)

    @property
    def is_key_frame(self) -> bool:
        """Whether it is flagged as a key frame."""
        return bool(self._said.flags & Flag.KEY_FRAME)

    @property
    def sequence(self) -> int:
        """From 1, one more per frame offered."""
        return int(self._said.sequence)

    @property
    def epoch(self) -> int:
        """Random per publisher instance."""
        return int(self._said.epoch)

    @property
    def epoch_changed(self) -> bool:
        """Whether it is the first frame of a (re)started or another producer."""
        return bool(self._said.epoch_changed)

    @property
    def publish_ns(self) -> int:
        """CLOCK_MONOTONIC when the write began, as time.monotonic_ns()."""
        return int(self._said.publish_ns)

    @property
    def received_ns(self) -> int:
        """CLOCK_MONOTONIC when it was taken."""
        return int(self._said.received_ns)

    @property
    def pts_ns(self) -> int:
        """Presentation time, by the publisher's clock."""
        return int(self._said.pts_ns)

    @property
    def utc_ns(self) -> Optional[int]:
        """Wall clock at capture since 1970, if known, as time.time_ns()."""
        return int(self._said.utc_ns) or None

    @property
    def duration_us(self) -> Optional[int]:
        """How long it lasts, if known."""
        return int(self._said.duration_us) or None

    @property
    def codec(self) -> str:
        """"H264", "AAC", "RAW" ...; "" if unknown."""
        return int(self._said.codec).to_bytes(4, "little").decode("latin-1").rstrip(" \0")

    @property
    def width(self) -> int:
        """Pixels; 0 if unknown."""
        return int(self._said.width)

    @property
    def height(self) -> int:
        """Pixels; 0 if unknown."""
        return int(self._said.height)

    @property
    def rate(self) -> Optional[Fraction]:
        """Frames or samples per second, if known."""
        if not self._said.rate_num:
            return None
        return Fraction(self._said.rate_num, self._said.rate_den or 1)

    @property
    def channels(self) -> int:
        """Of audio; 0 if unknown."""
        return int(self._said.channels)

    @property
    def is_verified(self) -> bool:
        """False for a foreign producer's frame: of it only the payload is known."""
        return bool(self._said.verified)

    @property
    def lost(self) -> int:
        """Frames lost just before this one, whatever the cause."""
        return self.overtaken + self.left_out + self.no_memory

    @property
    def overtaken(self) -> int:
        """Lost before this one: the reader was slower than the history is long."""
        return int(self._said.overtaken)

    @property
    def left_out(self) -> int:
        """Lost before this one: the publisher could not write them."""
        return int(self._said.left_out)

    @property
    def no_memory(self) -> int:
        """Lost before this one: there was no memory for them."""
        return int(self._said.no_memory)

    @property
    def dropped(self) -> int:
        """Passed over before this one by overflow="newest_only"."""
        return int(self._said.dropped)

    @property
    def skipped(self) -> int:
        """Passed over before this one on the way to a key frame."""
        return int(self._said.skipped)
