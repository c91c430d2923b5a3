# SPDX-License-Identifier: Apache-2.0
"""Writing the frames of one stream."""

from __future__ import annotations

import ctypes
import weakref
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Iterator, Optional, Union

from . import _library
from ._endpoint import Endpoint, center_wait_ms
from ._errors import BadArgument, check, milliseconds, text, whole_number
from ._frame import Flag, memory_at

if TYPE_CHECKING:
    import numpy.typing

    Buffer = Union[bytes, bytearray, memoryview, "numpy.typing.NDArray[Any]"]

_u32 = 2**32 - 1
_u64 = 2**64 - 1
_i64 = 2**63 - 1


@dataclass(frozen=True)
class Format:
    """What a stream carries. What is unknown or does not apply stays as it is."""

    codec: str = ""
    """"H264", "H265", "MJPG", "AAC", "OPUS", "G711", "RAW": four characters at most."""
    width: int = 0
    height: int = 0
    rate_num: int = 0
    """Frames or samples per second ..."""
    rate_den: int = 1
    """... as a fraction."""
    channels: int = 0

    def _for_library(self) -> _library.Format:
        codec = self.codec.encode("latin-1", errors="replace")
        if len(codec) > 4 or not self.codec.isascii():
            raise BadArgument(f"codec is {self.codec!r}, allowed are 4 ASCII characters")
        numbers = {name: whole_number(name, getattr(self, name), 0, _u32)
                   for name in ("width", "height", "rate_num", "rate_den", "channels")}
        four = int.from_bytes(codec.ljust(4), "little") if codec else 0
        return _library.Format(size=ctypes.sizeof(_library.Format), codec=four, **numbers)


class _Buffer(ctypes.Structure):
    """Python's Py_buffer."""

    _fields_ = [
        ("buf", ctypes.c_void_p), ("obj", ctypes.c_void_p), ("len", ctypes.c_ssize_t),
        ("itemsize", ctypes.c_ssize_t), ("readonly", ctypes.c_int), ("ndim", ctypes.c_int),
        ("format", ctypes.c_char_p), ("shape", ctypes.c_void_p), ("strides", ctypes.c_void_p),
        ("suboffsets", ctypes.c_void_p), ("internal", ctypes.c_void_p),
    ]


_get_buffer = ctypes.pythonapi.PyObject_GetBuffer
_get_buffer.argtypes = [ctypes.py_object, ctypes.POINTER(_Buffer), ctypes.c_int]
_release_buffer = ctypes.pythonapi.PyBuffer_Release
_release_buffer.argtypes = [ctypes.POINTER(_Buffer)]
_release_buffer.restype = None


@contextmanager
def _bytes_of(payload: Buffer) -> Iterator[_Buffer]:
    """Where a payload lies, read-only or not; TypeError or BufferError if not in one piece."""
    lies = _Buffer()
    _get_buffer(payload, ctypes.byref(lies), 0)  # PyBUF_SIMPLE; raises by itself
    try:
        yield lies
    finally:
        _release_buffer(ctypes.byref(lies))


class _Lent:
    """The room of a loan: it is known to be in use for as long as a memoryview holds this."""


class Loan:
    """Room in the history. `bytes_used` is what is published at the end of the `with`."""

    def __init__(self, room: memoryview) -> None:
        self.room = room
        """Writable, until the end of the `with`."""
        self.bytes_used = len(room)


class Publisher(Endpoint):
    """Writes the frames of one stream. Any thread may close it; the rest is for one at a time.

        with Publisher("CAM_LOOP", format=Format("H264", 1920, 1080, 30)) as camera:
            camera.publish(picture, key_frame=True)

    It works without a center, too: `state` and `reason` tell.

    center_wait: seconds; how long the constructor looks for a center; 0: not at all.
    folder: of the segments while there is no center; None: "shm".
    history_bytes: kept at least; 0: as configured, else twice the greatest frame.
    frame_bytes_max: 0: the page size of the stream, else 1 MiB.
    paced: waits for readers that are behind, for playback; each for `pace_limit` seconds without
    moving.
    """

    _kind = "publisher"
    _counters = _library.PublisherCounters

    def __init__(self, name: str, channel: int = 0, stream: int = 0, *,
                 format: Optional[Format] = None, history_bytes: int = 0, frame_bytes_max: int = 0,
                 paced: bool = False, pace_limit: float = 0.2, center_wait: float = 2.0,
                 folder: Optional[str] = None) -> None:
        self._lent: Optional[weakref.ref[_Lent]] = None
        said = _library.PublisherOptions(
            size=ctypes.sizeof(_library.PublisherOptions),
            channel=whole_number("channel", channel, -2**31, 2**31 - 1),
            stream=whole_number("stream", stream, -2**31, 2**31 - 1),
            center_wait_ms=center_wait_ms(center_wait), name=text("name", name),
            folder=text("folder", folder),
            history_bytes=whole_number("history_bytes", history_bytes, 0, _u64),
            frame_bytes_max=whole_number("frame_bytes_max", frame_bytes_max, 0, _u64),
            paced=1 if paced else 0, pace_limit_ms=milliseconds("pace_limit", pace_limit) or 1)
        if format is not None:
            said.format = ctypes.pointer(format._for_library())
        self._open(said)

    def publish(self, payload: Buffer, *, key_frame: bool = False, flags: int = 0, pts_ns: int = 0,
                utc_ns: int = 0, duration_us: int = 0) -> None:
        """Copies one frame into the history; anything whose bytes lie in one piece.

        Raises TooLarge, Refused or NoRing, and the next call tries again. BufferError while the
        room of a former loan is still in use.
        """
        self._check_room()
        info = _info(key_frame, flags, pts_ns, utc_ns, duration_us)
        if isinstance(payload, bytes):
            check(self._call("publish", payload, len(payload), ctypes.byref(info)))
            return
        with _bytes_of(payload) as lies:
            check(self._call("publish", lies.buf, lies.len, ctypes.byref(info)))

    @contextmanager
    def loan(self, payload_bytes: int = 0, *, key_frame: bool = False, flags: int = 0,
             pts_ns: int = 0, utc_ns: int = 0, duration_us: int = 0) -> Iterator[Loan]:
        """Lends room to write in place, which is published at the end of the `with`.

            with camera.loan(100_000) as loan:
                loan.bytes_used = encoder.readinto(loan.room)

        0 bytes: as much as possible. An exception inside drops the frame. Memoryviews and arrays
        of the room are to be gone at the end: until they are, publish() and loan() raise
        BufferError, and close() keeps the memory mapped.
        """
        self._check_room()
        info = _info(key_frame, flags, pts_ns, utc_ns, duration_us)
        address, length = ctypes.c_void_p(), ctypes.c_size_t()
        check(self._call("loan", whole_number("payload_bytes", payload_bytes, 0, 2**31 - 1),
                         ctypes.byref(address), ctypes.byref(length)))
        lent = _Lent()
        self._lent = weakref.ref(lent)
        loan = Loan(memory_at(address.value, length.value, lent))
        del lent
        try:
            yield loan
        finally:
            room, loan.room = loan.room, memoryview(b"")
            with suppress(BufferError):  # an array holds it
                room.release()
            del room
        used = whole_number("bytes_used", loan.bytes_used, 0, length.value)
        check(self._call("commit", used, ctypes.byref(info)))

    def leave_out(self, frames: int = 1) -> None:
        """Counts frames that the application has not got to publish: readers see them as lost."""
        check(self._call("leave_out", whole_number("frames", frames, 0, _u64)))

    def set_format(self, format: Format) -> None:
        """Changes what the next frames say of the stream."""
        check(self._call("set_format", ctypes.byref(format._for_library())))

    def key_frame_requested(self) -> bool:
        """Whether a reader has asked for a key frame since the last call."""
        requested = ctypes.c_int()
        check(self._call("key_frame_requested", ctypes.byref(requested)))
        return requested.value != 0

    def close(self) -> None:
        """Ends the stream: what was published stays readable. The second time nothing happens."""
        lent = self._lent() if self._lent else None
        if lent is not None and self._handle:
            # Memory that somebody may still write to stays mapped; the last memoryview closes.
            handle, self._handle = self._handle, 0
            weakref.finalize(lent, _library.library.zav_shm_publisher_close, handle)
        else:
            super().close()

    def __enter__(self) -> Publisher:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _check_room(self) -> None:
        if self._lent is not None and self._lent() is not None:
            raise BufferError("a memoryview or array of a former loan's room is still in use")


def _info(key_frame: bool, flags: int, pts_ns: int, utc_ns: int,
          duration_us: int) -> _library.FrameInfo:
    return _library.FrameInfo(
        size=ctypes.sizeof(_library.FrameInfo),
        flags=whole_number("flags", flags, 0, _u32) | (Flag.KEY_FRAME if key_frame else 0),
        pts_ns=whole_number("pts_ns", pts_ns, -_i64 - 1, _i64),
        utc_ns=whole_number("utc_ns", utc_ns, -_i64 - 1, _i64),
        duration_us=whole_number("duration_us", duration_us, 0, _u32))
