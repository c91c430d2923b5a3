# SPDX-License-Identifier: Apache-2.0
"""Whatever is done wrong is an exception that names it, and never the end of the process."""

from __future__ import annotations

import gc
import os
import re
import signal
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Callable

import numpy
import pytest
from conftest import FOLDER, Start, tap

import zav_shm
from zav_shm import Format, Publisher, Subscriber, _library

Call = Callable[[], Any]


def test_closed_objects_are_refused() -> None:
    """Every function; closing twice is nothing."""
    camera = Publisher("CAM_LOOP", center_wait=0)
    reader = tap()
    for endpoint in (camera, reader):
        endpoint.close()
        endpoint.close()
        assert endpoint.state is zav_shm.State.CLOSED and "is closed" in endpoint.reason
    calls: list[Call] = [
        lambda: camera.publish(b"1"), camera.leave_out, camera.counters,
        camera.key_frame_requested, lambda: camera.set_format(Format()),
        lambda: camera.loan().__enter__(), reader.receive, reader.fileno, reader.counters,
        reader.interrupt, reader.request_key_frame, lambda: reader.seek("oldest"),
        lambda: reader.pair("CAM_LOOP")]
    for call in calls:
        with pytest.raises(zav_shm.Closed, match="is closed"):
            call()
    assert not list(reader)


@pytest.mark.parametrize("options, words", [
    ({"channel": 2**40}, "channel is 1099511627776, allowed are"),
    ({"channel": -1}, "channel"),
    ({"stream": 2**31}, "stream is 2147483648, allowed are"),
    ({"history_bytes": -1}, "history_bytes is -1, allowed are 0"),
    ({"center_wait": -1.0}, "center_wait is -1.0 s"),
    ({"center_wait": float("nan")}, "center_wait is nan s"),
    ({"folder": "a\0b"}, "folder is 'a.x00b'"),
    ({"start": "yesterday"}, "start is 'yesterday', allowed are newest"),
    ({"start": "back", "back": -1.0}, "back is -1.0 s"),
    ({"overflow": ""}, "overflow is ''"),
    ({"timeout": -1.0}, "timeout is -1.0 s"),
])
def test_values_out_of_range_are_named(options: dict[str, Any], words: str) -> None:
    """The thing, the value and the limit."""
    wanted: dict[str, Any] = {"center_wait": 0.0, **options}
    with pytest.raises(zav_shm.BadArgument, match=words):
        Subscriber(producer="CAM_LOOP", **wanted)


def test_wrong_kinds_of_values_are_refused(publisher: Publisher) -> None:
    """By TypeError, and frames by the publisher."""
    with pytest.raises(TypeError, match="name is 7"):
        Publisher(7, center_wait=0)  # type: ignore[arg-type]
    with pytest.raises(zav_shm.BadArgument):
        Publisher(None, center_wait=0)  # type: ignore[arg-type]
    with pytest.raises(TypeError, match="channel is 1.5"):
        Publisher("CAM_LOOP", 1.5, center_wait=0)  # type: ignore[arg-type]
    with pytest.raises(zav_shm.BadArgument, match="codec is 'H.264'"):
        publisher.set_format(Format("H.264"))
    with pytest.raises(zav_shm.BadArgument, match="pts_ns is"):
        publisher.publish(b"", pts_ns=2**63)
    with pytest.raises(zav_shm.TooLarge):
        publisher.publish(bytes(2**21))
    with pytest.raises(zav_shm.TooLarge):
        publisher.loan(2**21).__enter__()
    with pytest.raises(zav_shm.BadArgument, match="bytes_used is"), publisher.loan(10) as loan:
        loan.bytes_used = 2**30
    publisher.publish(b"and on it goes")


def test_memory_of_a_frame_outlives_everything(publisher: Publisher, rings: Path) -> None:
    """Released, closed, collected, removed, the ring's file cut off: what is held stays readable."""
    publisher.publish(b"abc" * 1000)
    reader = tap()
    frame = reader.receive()
    part, array, whole = frame.payload[3:6], frame.numpy(), frame.payload
    reader.close()
    publisher.close()
    assert frame.is_whole()
    for file in rings.iterdir():
        file.unlink()
    frame.release()
    frame.release()
    calls: list[Call] = [lambda: frame.payload, frame.is_whole, frame.numpy, lambda: bytes(frame),
                         frame.__enter__]
    for call in calls:
        with pytest.raises(zav_shm.Closed, match="frame 1 is released"):
            call()
    assert len(frame) == 3000 and "released" in repr(frame)
    del frame, reader
    gc.collect()
    assert bytes(part) == b"abc" and bytes(whole) == b"abc" * 1000 and array[2] == ord("c")
    with pytest.raises(TypeError):
        whole[0] = 1
    with pytest.raises(ValueError):
        array[0] = 1


def mappings() -> int:
    """How many of histories this process has."""
    with open("/proc/self/maps", encoding="ascii") as maps:
        return sum("/rings/" in line for line in maps)


def test_memory_of_a_frame_is_given_back(publisher: Publisher) -> None:
    """With its last memoryview."""
    publisher.publish(b"abc")
    before = mappings()
    reader = tap()
    part = reader.receive().payload[1:]
    reader.close()
    assert mappings() > before
    del part
    assert mappings() == before


def test_room_of_a_loan_stays_mapped_while_it_is_held() -> None:
    """Calls that would take it away are refused; close() waits for its end."""
    camera = Publisher("CAM_LOOP", center_wait=0)
    with camera.loan(1000) as loan:
        room = loan.room
        array = numpy.frombuffer(loan.room, dtype="uint8")
    calls: list[Call] = [lambda: camera.publish(b"1"), lambda: camera.loan(10).__enter__()]
    for call in calls:
        with pytest.raises(BufferError, match="still in use"):
            call()
    camera.close()
    assert camera.state is zav_shm.State.CLOSED
    array[:] = 1
    assert mappings() > 0
    del array, room
    assert mappings() == 0
    with Publisher("CAM_LOOP", center_wait=0) as second, second.loan(1000) as loan:
        room = loan.room
    with pytest.raises(ValueError, match="released"):
        room[0] = 1


def test_untrusting_reader_survives_a_ring_that_is_cut_off(start: Start, rings: Path) -> None:
    """Frames are copies; afterwards errors only."""
    camera = start(sys.executable, FOLDER / "publish_numbers.py", 1, 5000, stdin=subprocess.PIPE)
    with tap(untrusting=True, timeout=20) as reader:
        frame = reader.receive()
        for file in rings.iterdir():
            if file.stat().st_size > 5000:
                os.truncate(file, 0)
        assert frame.payload[4999] == ord("x")
        for _ in range(3):
            with pytest.raises(zav_shm.Timeout):
                reader.receive(0.2)
    camera.kill()


def test_child_of_fork_is_refused(publisher: Publisher) -> None:
    """And the parent goes on."""
    reader = tap()
    child = os.fork()
    if child == 0:
        refused = 0
        calls: list[Call] = [lambda: publisher.publish(b"1"), reader.receive]
        for call in calls:
            try:
                call()
            except zav_shm.Closed:
                refused += 1
        os._exit(refused)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 2
    publisher.publish(b"1")
    assert bytes(reader.receive()) == b"1"


def test_control_c_ends_a_wait_without_limit(start: Start) -> None:
    """As in any program."""
    waits = ("from zav_shm import *\n"
             "reader = Subscriber(producer='CAM_LOOP')\n"
             "print('waits', flush=True)\n"
             "reader.receive()\n")
    process = start(sys.executable, "-c", waits, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert process.stdout is not None
    assert process.stdout.readline() == "waits\n"
    process.send_signal(signal.SIGINT)
    assert "KeyboardInterrupt" in process.communicate(timeout=20)[1]


def test_two_threads_in_one_call_are_told(publisher: Publisher) -> None:
    """Busy, or frames: no third."""
    results: list[str] = []

    def receive(reader: Subscriber) -> None:
        for _ in range(500):
            try:
                reader.receive(0.001)
            except zav_shm.Error as error:
                results.append(type(error).__name__)

    with tap() as reader:
        threads = [threading.Thread(target=receive, args=(reader,)) for _ in range(3)]
        for thread in threads:
            thread.start()
        for _ in range(200):
            publisher.publish(b"1")
        for thread in threads:
            thread.join()
    assert set(results) <= {"Busy", "Timeout"} and results


def test_missing_library_is_named() -> None:
    """With what may be done."""
    environment = {**os.environ, "ZAV_SHM_LIBRARY": "/nowhere.so"}
    ends = subprocess.run([sys.executable, "-c", "import zav_shm"], env=environment, text=True,
                          capture_output=True, check=False, timeout=60)
    assert ends.returncode == 1 and "ImportError: zav_shm needs libzav_shm_c.so.0" in ends.stderr


def test_structs_and_values_are_those_of_the_header() -> None:
    """Names and order of every member that Python declares."""
    header = Path(os.environ["ZAV_TEST_C_HEADER"]).read_text(encoding="utf-8")
    header = re.sub(r"/\*.*?\*/", "", header, flags=re.DOTALL)
    found = 0
    for body, name in re.findall(r"typedef struct \w+ \{(.*?)\} zav_shm_(\w+);", header, re.DOTALL):
        declared = getattr(_library, name.title().replace("_", ""))
        assert [field[0] for field in declared._fields_] == re.findall(r"(\w+);", body)
        found += 1
    assert found == 7
    states = dict(re.findall(r"ZAV_SHM_STATE_(\w+) = (\d+)", header))
    assert {name: int(value) for name, value in states.items()} == dict(
        (state.name, int(state)) for state in zav_shm.State)
