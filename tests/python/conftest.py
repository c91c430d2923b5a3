# SPDX-License-Identifier: Apache-2.0
"""Streams of this process and of others, in the private namespaces that the tests run in."""

from __future__ import annotations

import os
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

import zav_shm

if os.environ.get("ZAV_SHM_PRIVATE_NAMESPACES") != "1":
    sys.exit("These tests belong into namespaces of their own: ctest -R Python")

FOLDER = Path(__file__).parent
Start = Callable[..., "subprocess.Popen[str]"]


@pytest.fixture(autouse=True)
def rings() -> Iterator[Path]:
    """Where the histories lie; afterwards nothing is left but what a killed process leaves."""
    folder = Path("/dev/shm/shm/rings")
    folder.mkdir(parents=True, exist_ok=True, mode=0o700)
    yield folder
    for file in folder.iterdir():
        file.unlink()


@pytest.fixture
def start() -> Iterator[Start]:
    """Starts a program; it is killed at the end."""
    started = []

    def run(*command: object, **options: Any) -> subprocess.Popen[str]:
        process = subprocess.Popen([str(part) for part in command], text=True, **options)
        started.append(process)
        return process

    yield run
    for process in started:
        process.kill()
        process.wait()


@pytest.fixture
def publisher() -> Iterator[zav_shm.Publisher]:
    """A camera without a center."""
    with zav_shm.Publisher("CAM_LOOP", center_wait=0) as camera:
        yield camera


def tap(**options: Any) -> zav_shm.Subscriber:
    """A reader of that camera, from the beginning."""
    wanted: dict[str, Any] = {"producer": "CAM_LOOP", "start": "oldest", "timeout": 10.0}
    return zav_shm.Subscriber(**{**wanted, **options})


def wait_until(holds: Callable[[], bool], seconds: float = 20) -> None:
    """Fails when it does not become true."""
    end = time.monotonic() + seconds
    while not holds():
        assert time.monotonic() < end
        time.sleep(0.02)
