# SPDX-License-Identifier: Apache-2.0
"""Reading the frames of one stream."""

from __future__ import annotations

import asyncio
import ctypes
import os
import time
from enum import Enum
from typing import Literal, Optional, Union

from . import _library
from ._endpoint import Endpoint, center_wait_ms
from ._errors import (BadArgument, Busy, Closed, Error, Interrupted, Timeout, check, error_of,
                      milliseconds, text, whole_number)
from ._frame import Frame, View

Start = Literal["newest", "newest_key", "last_key_frame", "oldest", "back"]
Overflow = Literal["drop_until_key_frame", "drop_oldest", "newest_only"]

_starts = ("newest", "newest_key", "last_key_frame", "oldest", "back")
_overflows = ("drop_until_key_frame", "drop_oldest", "newest_only")

# A wait is made of these, so that Ctrl-C and other signals are heard.
_stretch_ms = 200


class _Default(Enum):
    OWN = 0  # the subscriber's own timeout


def _one_of(name: str, value: str, allowed: tuple[str, ...]) -> int:
    if value not in allowed:
        raise BadArgument(f"{name} is {value!r}, allowed are {', '.join(allowed)}")
    return allowed.index(value)


def _back_ns(start: str, seconds: float) -> int:
    if not 0 <= seconds <= 1e9:
        raise BadArgument(f"back is {seconds} s, allowed are 0 to 1e9")
    return int(seconds * 1e9) if start == "back" else 0


class Subscriber(Endpoint):
    """Reads the frames of one stream.

        with Subscriber("RECODER", producer="CAM_LOOP", start="last_key_frame") as recorder:
            for frame in recorder:
                file.write(bytes(frame))

    `for` and `async for` end when somebody calls close() or interrupt(). Any thread may call any
    function; receiving is for one at a time.

    name: this consumer, as configured; None: a tap, which asks no center.
    timeout: seconds that `for` and receive() wait for a frame, then Timeout; None: without limit.
    start: "newest", "newest_key", "last_key_frame", "oldest", or "back" by `back` seconds.
    overflow: where a reader goes on that was too slow: "drop_until_key_frame", "drop_oldest",
    "newest_only".
    center_wait: seconds; how long the constructor looks for a center; 0: not at all.
    untrusting: a publisher that shrinks its history costs an error, and not this process; frames
    are copies then.
    """

    _kind = "subscriber"
    _counters = _library.SubscriberCounters

    def __init__(self, name: Optional[str] = None, channel: int = 0, stream: int = 0, *,
                 producer: str, timeout: Optional[float] = None, start: Start = "newest",
                 back: float = 0.0, overflow: Overflow = "drop_until_key_frame",
                 start_at_key_frame: bool = False, key_frame_after_loss: bool = False,
                 asks_for_key_frame: bool = False, untrusting: bool = False,
                 history_bytes: int = 0, center_wait: float = 2.0,
                 folder: Optional[str] = None) -> None:
        self._waiting: Optional[_Waiting] = None
        self._is_interrupted = False
        self._timeout = timeout
        if timeout is not None:
            milliseconds("timeout", timeout)
        self._open(_library.SubscriberOptions(
            size=ctypes.sizeof(_library.SubscriberOptions),
            channel=whole_number("channel", channel, -2**31, 2**31 - 1),
            stream=whole_number("stream", stream, -2**31, 2**31 - 1),
            center_wait_ms=center_wait_ms(center_wait), name=text("name", name),
            producer=text("producer", producer), folder=text("folder", folder),
            back_ns=_back_ns(start, back), start=_one_of("start", start, _starts),
            overflow=_one_of("overflow", overflow, _overflows),
            start_at_key_frame=1 if start_at_key_frame else 0,
            key_frame_after_loss=1 if key_frame_after_loss else 0,
            asks_for_key_frame=1 if asks_for_key_frame else 0, untrusting=1 if untrusting else 0,
            history_bytes=whole_number("history_bytes", history_bytes, 0, 2**64 - 1)))

    def receive(self, timeout: Union[float, None, _Default] = _Default.OWN) -> Frame:
        """The next frame, in place.

        timeout: seconds; None: without limit; left out: the subscriber's own.
        Raises Timeout, Interrupted, Closed.
        """
        seconds = self._timeout if isinstance(timeout, _Default) else timeout
        left = _stretch_ms if seconds is None else milliseconds("timeout", seconds)
        end = None if seconds is None else time.monotonic() + seconds
        while True:
            frame = self._next(min(left, _stretch_ms))
            if frame is not None:
                return frame
            if end is not None:
                left = milliseconds("timeout", max(0.0, end - time.monotonic()))
                if left == 0:
                    raise self._timed_out(seconds)

    async def receive_async(self, timeout: Union[float, None, _Default] = _Default.OWN) -> Frame:
        """As receive(), while other tasks run. One task at a time."""
        seconds = self._timeout if isinstance(timeout, _Default) else timeout
        if seconds is not None:
            milliseconds("timeout", seconds)
        frame = self._next(0)
        if frame is not None:
            return frame
        if self._waiting is not None:
            raise Busy("another task waits for this subscriber's frames")
        waiting = self._waiting = _Waiting(self._descriptor())
        end = None if seconds is None else time.monotonic() + seconds
        try:
            while True:
                # Once more, now that interrupt() and close() know of this task. The library takes
                # an interruption only in a call that would wait.
                frame = self._next(1 if self._is_interrupted else 0)
                if frame is not None:
                    return frame
                if end is not None and time.monotonic() >= end:
                    raise self._timed_out(seconds)
                await waiting.readable(None if end is None else end - time.monotonic())
        finally:
            self._waiting = None
            waiting.end()

    def __iter__(self) -> Subscriber:
        return self

    def __next__(self) -> Frame:
        try:
            return self.receive()
        except (Interrupted, Closed):
            raise StopIteration from None

    def __aiter__(self) -> Subscriber:
        return self

    async def __anext__(self) -> Frame:
        try:
            return await self.receive_async()
        except (Interrupted, Closed):
            raise StopAsyncIteration from None

    def fileno(self) -> int:
        """A descriptor that is readable while there may be a frame, for select and its like: then
        receive(0) until Timeout. It ends with the subscriber; never close it."""
        descriptor = ctypes.c_int()
        check(self._call("descriptor", ctypes.byref(descriptor)))
        return descriptor.value

    def seek(self, start: Start, back: float = 0.0) -> None:
        """Goes on somewhere else in the history. What lies between does not count as lost."""
        check(self._call("seek", _one_of("start", start, _starts), _back_ns(start, back)))

    def pair(self, producer: Optional[str], timeout: float = 2.0) -> None:
        """Moves to another producer, or to none. Needs a name and a center.

        Raises NotServed or Refused, and stays as it was.
        """
        name = "NONE" if producer is None else producer
        check(self._call("pair", text("producer", name), milliseconds("timeout", timeout)))

    def request_key_frame(self) -> None:
        """Asks the publisher for a key frame as soon as it can. Raises NotServed."""
        check(self._call("request_key_frame"))

    def interrupt(self) -> None:
        """Ends a receive() or a `for` that waits, or else the next one that would. Any thread."""
        check(self._call("interrupt"))
        self._is_interrupted = True
        waiting = self._waiting
        if waiting is not None:
            waiting.wake()

    def close(self) -> None:
        """Leaves. Whoever waits for a frame gets Closed. The second time nothing happens."""
        super().close()
        waiting = self._waiting
        if waiting is not None:
            waiting.wake()

    def __enter__(self) -> Subscriber:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _descriptor(self) -> int:
        """The caller's own: an event loop may hold it a moment longer than the subscriber lives."""
        return os.dup(self.fileno())

    def _next(self, wait_ms: int) -> Optional[Frame]:
        """The next frame, or None in the course of `wait_ms`."""
        handle, said = ctypes.c_uint64(), _library.Frame(size=ctypes.sizeof(_library.Frame))
        status = self._call("receive_view", wait_ms, ctypes.byref(handle), ctypes.byref(said))
        if status == _library.OK:
            return Frame(said, View(handle.value))
        if status == _library.TIMEOUT:
            return None
        if status == _library.INTERRUPTED:
            self._is_interrupted = False
            raise Interrupted("interrupt() was called")
        raise error_of(status)

    def _timed_out(self, seconds: Optional[float]) -> Timeout:
        try:
            state, reason = self._standing()
        except Error as gone:
            return Timeout(f"no frame within {seconds} s: {gone}")
        name: bytes = _library.library.zav_shm_state_name(int(state))
        return Timeout(f"no frame within {seconds} s: {name.decode()}"
                       + (f", {reason}" if reason else ""))


class _Waiting:
    """A task that waits in an event loop for a descriptor, which it owns."""

    def __init__(self, descriptor: int) -> None:
        self._loop = asyncio.get_running_loop()
        self._descriptor = descriptor
        self._event = asyncio.Event()
        self._loop.add_reader(descriptor, self._event.set)

    async def readable(self, seconds: Optional[float]) -> None:
        """Returns when there may be a frame, when somebody wakes it, and after so long."""
        try:
            await asyncio.wait_for(self._event.wait(), seconds)
        except asyncio.TimeoutError:
            pass
        self._event.clear()

    def wake(self) -> None:
        """From any thread."""
        try:
            self._loop.call_soon_threadsafe(self._event.set)
        except RuntimeError:
            pass  # the loop is closed, and nobody waits

    def end(self) -> None:
        """Leaves the loop."""
        self._loop.remove_reader(self._descriptor)
        os.close(self._descriptor)
