# SPDX-License-Identifier: Apache-2.0
"""What a publisher writes is what subscribers of this and of other processes read."""

from __future__ import annotations

import os
import subprocess
import sys
import threading
import time
from fractions import Fraction
from pathlib import Path
from typing import Any

import numpy
import pytest
from conftest import FOLDER, Start, tap, wait_until

import zav_shm
from zav_shm import Flag, Format, Publisher, State

PIPE = subprocess.PIPE


def test_every_frame_of_another_process_arrives_in_order(start: Start) -> None:
    """for, with all that comes beside the payload."""
    camera = start(sys.executable, FOLDER / "publish_numbers.py", 200, 3000, stdin=PIPE, stdout=PIPE)
    numbers = []
    with tap() as reader:
        for frame in reader:
            number = int.from_bytes(frame.payload[:4], "little")
            numbers.append(number)
            assert (len(frame), frame.is_key_frame) == (3000, number % 10 == 0)
            assert (frame.sequence, frame.pts_ns) == (number + 1, number * 40_000_000)
            assert (frame.codec, frame.width, frame.height) == ("H264", 640, 480)
            assert (frame.rate, frame.lost, frame.is_verified) == (Fraction(25), 0, True)
            assert (frame.utc_ns, frame.duration_us) == (None, None)
            assert 0 <= frame.received_ns - frame.publish_ns < 20e9
            assert frame.is_whole()
            if number == 199:
                break
        assert reader.counters()["frames"] == 200
        assert reader.counters()["key_frames"] == 20
    assert numbers == list(range(200))
    camera.communicate(timeout=20)
    assert camera.returncode == 0


def test_frames_go_on_when_a_killed_publisher_is_started_again(start: Start) -> None:
    """SIGKILL; its successor has another epoch."""
    command = (sys.executable, FOLDER / "publish_numbers.py", 5, 100)
    with tap() as reader:
        camera = start(*command, stdin=PIPE, stdout=PIPE)
        first = [reader.receive() for _ in range(5)]
        camera.kill()
        camera.wait()
        start(*command, stdin=PIPE, stdout=PIPE)
        second = reader.receive(20)
        assert second.epoch_changed and second.epoch != first[0].epoch
        assert bytes(first[4])[:1] == b"\x04"  # of the ring that is gone


@pytest.mark.skipif("ZAV_TEST_CPP_PRODUCER" not in os.environ, reason="no examples were built")
def test_works_with_programs_in_cpp(start: Start) -> None:
    """In both directions."""
    with tap() as reader:
        start(os.environ["ZAV_TEST_CPP_PRODUCER"], stdout=subprocess.DEVNULL,
              stderr=subprocess.DEVNULL)
        for number in range(30):
            frame = reader.receive(20)
            assert (len(frame), frame.is_key_frame) == (20000, number % 30 == 0)


@pytest.mark.skipif("ZAV_TEST_CPP_CONSUMER" not in os.environ, reason="no examples were built")
def test_program_in_cpp_reads_what_python_publishes(start: Start, rings: Path) -> None:
    """All 300 frames that it waits for."""
    consumer = start(os.environ["ZAV_TEST_CPP_CONSUMER"], stdout=PIPE, stderr=subprocess.DEVNULL)
    wait_until(lambda: any(rings.glob("*.reader")))
    with Publisher("CAM_LOOP", center_wait=0, paced=True) as camera:
        for number in range(300):
            camera.publish(bytes(4321), key_frame=number % 30 == 0)
            time.sleep(0.002)
        output, _ = consumer.communicate(timeout=60)
    assert output.count("4321 bytes, lost 0") == 300


def test_payloads_of_every_kind_are_taken(publisher: Publisher) -> None:
    """Everything whose bytes lie in one piece."""
    array = numpy.arange(6, dtype="uint16").reshape(2, 3)
    payloads: list[Any] = [b"", b"\0", b"abc", bytearray(b"abc"), memoryview(b"xabc")[1:], array,
                b"y" * 100_000]
    for payload in payloads:
        publisher.publish(payload, flags=Flag.RECOVERY_POINT, duration_us=7, utc_ns=8)
    with tap() as reader:
        for payload in payloads:
            frame = reader.receive()
            assert bytes(frame) == bytes(payload)
            assert (frame.flags, frame.duration_us, frame.utc_ns) == (Flag.RECOVERY_POINT, 7, 8)
    with pytest.raises(BufferError):
        publisher.publish(memoryview(b"abcdef")[::2])
    with pytest.raises(ValueError):
        publisher.publish(array[:, ::2])
    with pytest.raises(TypeError):
        publisher.publish("text")  # type: ignore[arg-type]


def test_frame_is_told_to_be_overwritten() -> None:
    """is_whole(), and bytes() that checks it."""
    with Publisher("CAM_LOOP", center_wait=0, history_bytes=65536, frame_bytes_max=10_000) as camera:
        camera.publish(b"1" * 10_000)
        with tap() as reader:
            frame = reader.receive()
            assert frame.is_whole() and bytes(frame) == b"1" * 10_000
            for _ in range(100):
                camera.publish(b"2" * 10_000)
            assert not frame.is_whole()
            with pytest.raises(zav_shm.Overwritten, match="frame 1 of 10000 bytes"):
                bytes(frame)
            after = reader.receive()
            assert after.overtaken > 0 and after.lost == after.overtaken


def test_room_of_a_loan_is_written_in_place(publisher: Publisher) -> None:
    """And what is not committed is not published."""
    with publisher.loan(1000, key_frame=True) as loan:
        assert len(loan.room) >= 1000
        loan.room[:5] = b"hello"
        loan.bytes_used = 5
    with pytest.raises(KeyError), publisher.loan(1000):
        raise KeyError
    publisher.leave_out(3)
    publisher.publish(b"next")
    with tap() as reader:
        first, second = reader.receive(), reader.receive()
        assert (bytes(first), first.is_key_frame) == (b"hello", True)
        assert (bytes(second), second.left_out) == (b"next", 3)


def test_raw_pictures_are_arrays(publisher: Publisher) -> None:
    """Of their shape, read-only and without a copy."""
    for payload_bytes, shape in ((12, (3, 4)), (36, (3, 4, 3)), (20, (5, 4)), (13, (13,))):
        publisher.set_format(Format("RAW", 4, 3))
        publisher.publish(bytes(range(payload_bytes)))
        with tap(start="oldest") as reader:
            frame = [reader.receive() for _ in range(publisher.counters()["published"])][-1]
            picture = frame.numpy()
            assert picture.shape == shape and picture.flat[5] == 5
            assert not picture.flags.owndata and not picture.flags.writeable
    assert frame.numpy(dtype="uint8", shape=(13, 1)).shape == (13, 1)


def test_starts_and_seeks_where_it_is_told(publisher: Publisher) -> None:
    """Each of the starts."""
    for number in range(20):
        publisher.publish(bytes([number]), key_frame=number % 8 == 0)
    with tap(start="last_key_frame") as reader:
        assert reader.receive().payload[0] == 16
        reader.seek("oldest")
        assert reader.receive().payload[0] == 0
        reader.seek("back", back=0.0)
        assert reader.receive().payload[0] == 16
        reader.seek("newest")
        with pytest.raises(zav_shm.Timeout, match="no frame within 0.01 s"):
            reader.receive(0.01)


def test_another_thread_ends_a_wait() -> None:
    """interrupt() and close(), both also for a for."""
    reader = tap(timeout=None)
    threading.Timer(0.3, reader.interrupt).start()
    with pytest.raises(zav_shm.Interrupted):
        reader.receive()
    threading.Timer(0.3, reader.interrupt).start()
    assert not list(reader)
    threading.Timer(0.3, reader.close).start()
    assert not list(reader)
    assert reader.state is State.CLOSED


def test_key_frames_are_asked_for(publisher: Publisher) -> None:
    """From the reader to the publisher."""
    publisher.publish(b"1")
    with tap() as reader:
        reader.receive()
        assert not publisher.key_frame_requested()
        reader.request_key_frame()
        wait_until(publisher.key_frame_requested)
        assert not publisher.key_frame_requested()


def test_example_prints_sizes_and_intervals(start: Start, tmp_path: Path) -> None:
    """examples/frame_sizes.py, beside a camera."""
    script = FOLDER.parents[1] / "examples" / "frame_sizes.py"
    start(sys.executable, FOLDER / "publish_numbers.py", 2000, 5000, stdin=PIPE, stdout=PIPE)
    wait_until(lambda: any(Path("/dev/shm/shm/rings").iterdir()))
    ends = subprocess.run([sys.executable, script, "CAM_LOOP", "1", tmp_path / "plot.png"],
                          text=True, capture_output=True, check=False, timeout=60)
    assert ends.returncode == 0, ends.stderr
    assert "lost 0" in ends.stdout and "median 5000, greatest 5000" in ends.stdout
    assert "intervals: mean 0.0" in ends.stdout
