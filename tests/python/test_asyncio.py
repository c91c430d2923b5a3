# SPDX-License-Identifier: Apache-2.0
"""Subscribers in an event loop."""

from __future__ import annotations

import asyncio
import os
import subprocess
import sys
import threading
import time

import pytest
from conftest import FOLDER, Start, tap

import zav_shm
from zav_shm import Publisher


def descriptors() -> int:
    """How many this process has."""
    return len(os.listdir("/proc/self/fd"))


def test_two_tasks_read_every_frame(start: Start) -> None:
    """async for, of one stream from another process; nothing stays open."""
    async def read() -> list[int]:
        with tap() as reader:
            numbers = []
            async for frame in reader:
                numbers.append(int.from_bytes(frame.payload[:4], "little"))
                if len(numbers) == 100:
                    break
            return numbers

    async def both() -> list[list[int]]:
        return list(await asyncio.gather(read(), read()))

    before = descriptors()
    camera = start(sys.executable, FOLDER / "publish_numbers.py", 100, 64, stdin=subprocess.PIPE)
    assert asyncio.run(both()) == [list(range(100))] * 2
    camera.communicate(timeout=20)
    assert descriptors() <= before


def test_loop_sleeps_while_there_is_no_frame(publisher: Publisher) -> None:
    """Other tasks run, the time ends, and the processor is left alone."""
    publisher.publish(b"1")

    async def wait() -> None:
        with tap() as reader:
            await reader.receive_async()
            with pytest.raises(zav_shm.Timeout):
                await reader.receive_async(1.0)

    begin, used = time.monotonic(), time.process_time()
    asyncio.run(wait())
    assert time.monotonic() - begin >= 1.0
    assert time.process_time() - used < 0.5


@pytest.mark.parametrize("from_thread", [False, True])
@pytest.mark.parametrize("end", ["close", "interrupt"])
def test_a_wait_is_ended(end: str, from_thread: bool) -> None:
    """By another task and by another thread."""
    async def wait() -> int:
        with tap(timeout=None) as reader:
            if from_thread:
                threading.Timer(0.2, getattr(reader, end)).start()
            else:
                asyncio.get_running_loop().call_later(0.2, getattr(reader, end))
            return len([frame async for frame in reader])

    assert asyncio.run(asyncio.wait_for(wait(), 20)) == 0


def test_an_interruption_waits_for_the_next_wait(publisher: Publisher) -> None:
    """Once, and not where there is a frame."""
    async def use() -> None:
        with tap(timeout=None) as reader:
            reader.interrupt()
            publisher.publish(b"1")
            assert bytes(await reader.receive_async(20)) == b"1"
            with pytest.raises(zav_shm.Interrupted):
                await reader.receive_async(20)
            with pytest.raises(zav_shm.Timeout):
                await reader.receive_async(0.05)
            with pytest.raises(zav_shm.Timeout):
                reader.receive(0.05)

    asyncio.run(use())


def test_cancelled_and_second_tasks_do_no_harm(publisher: Publisher) -> None:
    """The reader goes on."""
    async def use() -> bytes:
        with tap() as reader:
            first = asyncio.create_task(reader.receive_async(None))
            await asyncio.sleep(0.05)
            with pytest.raises(zav_shm.Busy):
                await reader.receive_async()
            first.cancel()
            with pytest.raises(asyncio.CancelledError):
                await first
            publisher.publish(b"on")
            return bytes(await reader.receive_async())

    assert asyncio.run(use()) == b"on"
