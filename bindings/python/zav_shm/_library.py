# SPDX-License-Identifier: Apache-2.0
"""libzav_shm_c.so.0 as ctypes sees it: its structs, its functions and what their results mean."""

from __future__ import annotations

import ctypes
import os
from ctypes import POINTER, c_char_p, c_int, c_int32, c_int64, c_size_t, c_uint32, c_uint64, c_void_p

NAME = "libzav_shm_c.so.0"

OK = 0
TIMEOUT = 1
INTERRUPTED = 2
NOT_CONNECTED = 3
SMALL_BUFFER = -9


class Format(ctypes.Structure):
    """zav_shm_format"""

    _fields_ = [(name, c_uint32) for name in
                ("size", "codec", "width", "height", "rate_num", "rate_den", "channels")]


class PublisherOptions(ctypes.Structure):
    """zav_shm_publisher_options"""

    _fields_ = [
        ("size", c_uint32), ("channel", c_int32), ("stream", c_int32), ("center_wait_ms", c_int32),
        ("name", c_char_p), ("folder", c_char_p), ("format", POINTER(Format)),
        ("history_bytes", c_uint64), ("frame_bytes_max", c_uint64), ("paced", c_uint32),
        ("pace_limit_ms", c_uint32),
    ]


class FrameInfo(ctypes.Structure):
    """zav_shm_frame_info"""

    _fields_ = [
        ("size", c_uint32), ("flags", c_uint32), ("pts_ns", c_int64), ("utc_ns", c_int64),
        ("duration_us", c_uint32), ("reserved", c_uint32),
    ]


class PublisherCounters(ctypes.Structure):
    """zav_shm_publisher_counters"""

    _fields_ = [("size", c_uint32), ("reserved", c_uint32)] + [
        (name, c_uint64) for name in
        ("frames", "published", "bytes", "too_large", "refused", "recoveries", "waits", "given_up",
         "slot_frames", "slot_passed_over", "slot_slow_reads")]


class SubscriberOptions(ctypes.Structure):
    """zav_shm_subscriber_options"""

    _fields_ = [
        ("size", c_uint32), ("channel", c_int32), ("stream", c_int32), ("center_wait_ms", c_int32),
        ("name", c_char_p), ("producer", c_char_p), ("folder", c_char_p), ("back_ns", c_int64),
        ("start", c_uint32), ("overflow", c_uint32), ("start_at_key_frame", c_uint32),
        ("key_frame_after_loss", c_uint32), ("asks_for_key_frame", c_uint32),
        ("untrusting", c_uint32), ("history_bytes", c_uint64),
    ]


class Frame(ctypes.Structure):
    """zav_shm_frame"""

    _fields_ = [
        ("size", c_uint32), ("flags", c_uint32), ("payload_bytes", c_uint64),
        ("payload", c_void_p), ("sequence", c_uint64), ("epoch", c_uint64),
        ("publish_ns", c_int64), ("received_ns", c_int64), ("pts_ns", c_int64),
        ("utc_ns", c_int64), ("codec", c_uint32), ("width", c_uint32), ("height", c_uint32),
        ("rate_num", c_uint32), ("rate_den", c_uint32), ("channels", c_uint32),
        ("duration_us", c_uint32), ("verified", c_uint32), ("epoch_changed", c_uint32),
        ("reserved", c_uint32), ("overtaken", c_uint64), ("left_out", c_uint64),
        ("no_memory", c_uint64), ("dropped", c_uint64), ("skipped", c_uint64),
    ]


class SubscriberCounters(ctypes.Structure):
    """zav_shm_subscriber_counters"""

    _fields_ = [("size", c_uint32), ("reserved", c_uint32)] + [
        (name, c_uint64) for name in
        ("frames", "bytes", "key_frames", "overtaken", "left_out", "no_memory", "dropped",
         "skipped", "torn", "invalid", "foreign", "repeated", "recoveries", "timeouts_no_frame",
         "timeouts_no_relay")] + [("latency_p50_ns", c_int64), ("latency_p99_ns", c_int64)]


def _load() -> ctypes.CDLL:
    path = os.environ.get("ZAV_SHM_LIBRARY") or NAME
    try:
        return ctypes.CDLL(path)
    except OSError as error:
        raise ImportError(f"zav_shm needs {NAME}: {error}; ZAV_SHM_LIBRARY may name another file") \
            from error


library = _load()

_handle = c_uint64
_publisher = {
    "open": [POINTER(PublisherOptions), POINTER(_handle)],
    "publish": [_handle, c_void_p, c_size_t, POINTER(FrameInfo)],
    "loan": [_handle, c_size_t, POINTER(c_void_p), POINTER(c_size_t)],
    "commit": [_handle, c_size_t, POINTER(FrameInfo)],
    "leave_out": [_handle, c_uint64],
    "set_format": [_handle, POINTER(Format)],
    "key_frame_requested": [_handle, POINTER(c_int)],
    "counters_of": [_handle, POINTER(PublisherCounters)],
    "state": [_handle, POINTER(c_int), c_char_p, c_size_t],
    "close": [_handle],
}
_subscriber = {
    "open": [POINTER(SubscriberOptions), POINTER(_handle)],
    "receive_view": [_handle, c_int32, POINTER(_handle), POINTER(Frame)],
    "interrupt": [_handle],
    "seek": [_handle, c_uint32, c_int64],
    "descriptor": [_handle, POINTER(c_int)],
    "pair": [_handle, c_char_p, c_uint32],
    "request_key_frame": [_handle],
    "counters_of": [_handle, POINTER(SubscriberCounters)],
    "state": [_handle, POINTER(c_int), c_char_p, c_size_t],
    "close": [_handle],
}
_view = {"is_whole": [_handle, POINTER(c_int)], "release": [_handle]}

for _kind, _functions in (("publisher", _publisher), ("subscriber", _subscriber), ("view", _view)):
    for _name, _arguments in _functions.items():
        _function = getattr(library, f"zav_shm_{_kind}_{_name}")
        _function.argtypes = _arguments
        _function.restype = c_int
for _name in ("last_error", "version"):
    getattr(library, f"zav_shm_{_name}").restype = c_char_p
library.zav_shm_state_name.restype = c_char_p
library.zav_shm_state_name.argtypes = [c_int]


def last_error() -> str:
    """Why the latest call of this thread failed."""
    message: bytes = library.zav_shm_last_error()
    return message.decode(errors="replace")


def version() -> str:
    """The library's version, "0.1.0"."""
    number: bytes = library.zav_shm_version()
    return number.decode()
