# SPDX-License-Identifier: Apache-2.0
"""With a center: registering, pairing, being refused."""

from __future__ import annotations

import os

import pytest
from conftest import Start, wait_until

import zav_shm
from zav_shm import Publisher, State, Subscriber

pytestmark = pytest.mark.skipif("ZAV_TEST_CENTERD" not in os.environ, reason="no daemon was built")


@pytest.fixture
def center(start: Start) -> None:
    """The daemon with the sample configuration."""
    daemon = start(os.environ["ZAV_TEST_CENTERD"], "--config", os.environ["ZAV_TEST_CONFIG"],
                   "--clean")

    def answers() -> bool:
        assert daemon.poll() is None
        with Publisher("CAM_REC", center_wait=0.1) as probe:
            return probe.state is State.CONNECTED

    wait_until(answers)


@pytest.mark.usefixtures("center")
def test_consumer_moves_to_another_producer() -> None:
    """pair(), to another and to none."""
    with Publisher("CAM_LOOP") as camera, Publisher("PLAYBACK") as playback:
        camera.publish(b"camera", key_frame=True)
        playback.publish(b"playback", key_frame=True)
        with Subscriber("PLAYER", producer="CAM_LOOP", start="last_key_frame",
                        timeout=20) as player:
            assert (player.state, player.reason) == (State.CONNECTED, "")
            assert bytes(player.receive()) == b"camera"
            player.pair("PLAYBACK")
            playback.publish(b"more", key_frame=True)
            frame = player.receive()
            assert bytes(frame) in (b"playback", b"more") and frame.epoch_changed
            player.pair(None)


@pytest.mark.usefixtures("center")
def test_what_is_not_configured_is_refused() -> None:
    """By name, and a producer to pair with."""
    with Publisher("NOBODY") as nobody:
        assert nobody.state is State.REFUSED and "NOBODY" in nobody.reason
        with pytest.raises(zav_shm.Refused, match="NOBODY"):
            nobody.publish(b"1")
    with Subscriber("PLAYER", producer="CAM_LOOP") as player:
        with pytest.raises(zav_shm.Refused):
            player.pair("NOBODY")


def test_nobody_to_ask_is_told() -> None:
    """Without a center."""
    with Subscriber("PLAYER", producer="CAM_LOOP", center_wait=0) as player:
        assert player.state is not State.CONNECTED and player.reason
        with pytest.raises(zav_shm.NotServed):
            player.pair("PLAYBACK", 0.1)
