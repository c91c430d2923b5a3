# SPDX-License-Identifier: Apache-2.0
"""What publishers and subscribers have in common."""

from __future__ import annotations

import ctypes
from enum import IntEnum
from typing import Any

from . import _library
from ._errors import Closed, check, milliseconds


class State(IntEnum):
    """Where a publisher or subscriber stands."""

    CLOSED = 0
    CONNECTED = 1
    """Frames flow when there are any."""
    WAITING_FOR_CENTER = 2
    """Frames flow all the same."""
    WAITING_FOR_PRODUCER = 3
    """No frame has come for a second."""
    REFUSED = 4
    """By the center."""
    NO_RING = 5
    """A publisher that cannot have its history."""


class Endpoint:
    """A handle of the library with its state, its counters and its end."""

    _kind = ""
    _counters: type[Any]
    _handle = 0

    def _call(self, function: str, *arguments: Any) -> int:
        handle = self._handle
        if not handle:
            raise Closed(f"the {self._kind} is closed")
        status: int = getattr(_library.library, f"zav_shm_{self._kind}_{function}")(
            handle, *arguments)
        return status

    def _open(self, options: ctypes.Structure) -> None:
        handle = ctypes.c_uint64()
        opens = getattr(_library.library, f"zav_shm_{self._kind}_open")
        check(opens(ctypes.byref(options), ctypes.byref(handle)))
        self._handle = handle.value

    def _standing(self) -> tuple[State, str]:
        state, reason = ctypes.c_int(), ctypes.create_string_buffer(512)
        check(self._call("state", ctypes.byref(state), reason, len(reason)))
        return State(state.value), reason.value.decode(errors="replace")

    @property
    def state(self) -> State:
        """Where it stands; State.CLOSED once it is closed."""
        return self._standing()[0] if self._handle else State.CLOSED

    @property
    def reason(self) -> str:
        """Why it is not connected, in one line; "" if it is."""
        return self._standing()[1] if self._handle else f"the {self._kind} is closed"

    def counters(self) -> dict[str, int]:
        """What it has counted so far, by the names in zav_shm.h."""
        said = self._counters(size=ctypes.sizeof(self._counters))
        check(self._call("counters_of", ctypes.byref(said)))
        return {name: getattr(said, name) for name, *_ in said._fields_[2:]}

    def close(self) -> None:
        """Ends it; the second time nothing happens. Any thread may call it."""
        handle, self._handle = self._handle, 0
        if handle:
            getattr(_library.library, f"zav_shm_{self._kind}_close")(handle)

    def __del__(self) -> None:
        if self._handle and _library is not None:
            self.close()


def center_wait_ms(seconds: float) -> int:
    """How long open() looks for a center, as the library takes it: below 0 is not at all."""
    return milliseconds("center_wait", seconds) or -1
