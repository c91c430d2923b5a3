# SPDX-License-Identifier: Apache-2.0
"""The exceptions. Each message names the thing, the value and the limit."""

from __future__ import annotations

from typing import Optional

from . import _library


class Error(Exception):
    """What the library refused, and why."""

    def __init__(self, reason: str = "") -> None:
        super().__init__(reason)
        self.reason = reason


class Timeout(Error, TimeoutError):
    """No frame came within the time; `reason` tells the state."""


class Interrupted(Error):
    """interrupt() was called."""


class Closed(Error, ValueError):
    """The object is closed, or was opened by the parent of this process."""


class BadArgument(Error, ValueError):
    """A value is out of its range."""


class Busy(Error):
    """Another thread is in a call of this object that comes one at a time."""


class TooLarge(Error, ValueError):
    """A frame is longer than the stream's frames may be, or than the loan."""


class Refused(Error):
    """The center's configuration does not know what was asked for."""


class NoRing(Error):
    """There is no history to write."""


class NotServed(Error):
    """There is nobody to ask, no right to, or no answer in time."""


class OutOfMemory(Error, MemoryError):
    """The system has no memory for this."""


class Failed(Error):
    """The system refused something."""


class Overwritten(Error):
    """The publisher has overwritten a frame that was read in place."""


_of_status: dict[int, type[Error]] = {
    _library.TIMEOUT: Timeout,
    _library.INTERRUPTED: Interrupted,
    -1: Closed,
    -2: Closed,  # a handle that is none: the object was never open
    -3: BadArgument,
    -4: Failed,
    -5: Busy,
    -6: TooLarge,
    -7: Refused,
    -8: NoRing,
    -10: NotServed,
    -11: OutOfMemory,
    -12: Failed,
}


def error_of(status: int) -> Error:
    """The exception for what a call has just returned."""
    return _of_status.get(status, Failed)(_library.last_error())


def check(status: int) -> None:
    """Raises what a call returned below 0."""
    if status < 0:
        raise error_of(status)


def whole_number(name: str, value: int, low: int, high: int) -> int:
    """The value, if it is a whole number in its range: ctypes would cut it without a word."""
    if isinstance(value, bool) or not hasattr(value, "__index__"):
        raise TypeError(f"{name} is {value!r}, and no whole number")
    number = value.__index__()
    if not low <= number <= high:
        raise BadArgument(f"{name} is {number}, allowed are {low} to {high}")
    return number


def text(name: str, value: Optional[str]) -> Optional[bytes]:
    """As the library takes it; None is none."""
    if value is None:
        return None
    if not isinstance(value, str):
        raise TypeError(f"{name} is {value!r}, and no text")
    if "\0" in value:
        raise BadArgument(f"{name} is {value!r}: a zero ends a text")
    return value.encode(errors="surrogateescape")


def milliseconds(name: str, seconds: float) -> int:
    """A time, rounded up; one beyond the library's range is 24 days."""
    if not seconds >= 0:
        raise BadArgument(f"{name} is {seconds} s, and must not be below 0")
    return int(min(-(-seconds * 1000 // 1), 2**31 - 1))
