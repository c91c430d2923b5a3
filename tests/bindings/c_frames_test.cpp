// SPDX-License-Identifier: Apache-2.0
//
// What the C interface is for: frames, and what is said of them.
#include <poll.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "c_frames_fixture.h"

using namespace std::chrono_literals;

namespace {

using C_Interface = C_Frames;

TEST_F(C_Interface, carries_frames_with_all_that_is_said_of_them) {
    zav_shm_format format = {};
    format.size = sizeof format;
    format.codec = ZAV_SHM_H265;
    format.width = 1920;
    format.height = 1080;
    format.rate_num = 30;
    zav_shm_publisher_options options = {};
    options.size = sizeof options;
    options.name = "CAM_LOOP";
    options.format = &format;
    zav_shm_publisher camera = 0;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_open(&options, &camera)) << zav_shm_last_error();
    const auto player = subscriber(reading("PLAYER"));

    zav_shm_frame_info info = {};
    info.size = sizeof info;
    info.flags = ZAV_SHM_KEY_FRAME;
    info.pts_ns = 123;
    info.utc_ns = 456;
    info.duration_us = 33'333;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_publish(camera, "picture", 7, &info));
    std::array<char, 16> buffer{};
    zav_shm_frame frame = {};
    frame.size = sizeof frame;
    ASSERT_EQ(ZAV_SHM_OK,
              zav_shm_subscriber_receive(player, buffer.data(), buffer.size(), 5000, &frame));
    EXPECT_STREQ("picture", buffer.data());
    EXPECT_EQ(sizeof frame, frame.size);
    EXPECT_EQ(7U, frame.payload_bytes);
    EXPECT_EQ(buffer.data(), frame.payload);
    EXPECT_EQ(ZAV_SHM_KEY_FRAME, frame.flags);
    EXPECT_EQ(1U, frame.sequence);
    EXPECT_EQ(123, frame.pts_ns);
    EXPECT_EQ(456, frame.utc_ns);
    EXPECT_EQ(33'333U, frame.duration_us);
    EXPECT_EQ(ZAV_SHM_H265, frame.codec);
    EXPECT_EQ(1920U, frame.width);
    EXPECT_EQ(1080U, frame.height);
    EXPECT_EQ(30U, frame.rate_num);
    EXPECT_EQ(1U, frame.rate_den);
    EXPECT_EQ(1U, frame.verified);
    EXPECT_LE(frame.publish_ns, frame.received_ns);

    zav_shm_publisher_counters sent = {};
    sent.size = sizeof sent;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_counters_of(camera, &sent));
    EXPECT_EQ(1U, sent.published);
    EXPECT_EQ(7U, sent.bytes);
    zav_shm_subscriber_counters got = {};
    got.size = sizeof got;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_counters_of(player, &got));
    EXPECT_EQ(1U, got.frames);
    EXPECT_EQ(1U, got.key_frames);
    EXPECT_LT(0, got.latency_p50_ns);
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_subscriber_close(player));
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_publisher_close(camera));
}

TEST_F(C_Interface, keeps_a_frame_that_the_buffer_is_too_small_for) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "long one"));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "next"));
    char small[4];
    zav_shm_frame frame = {};
    frame.size = sizeof frame;
    ASSERT_EQ(ZAV_SHM_SMALL_BUFFER,
              zav_shm_subscriber_receive(player, small, sizeof small, 5000, &frame));
    EXPECT_STREQ("a frame of 8 bytes, the buffer has 4", zav_shm_last_error());
    EXPECT_EQ(8U, frame.payload_bytes);
    EXPECT_EQ(nullptr, frame.payload);
    EXPECT_EQ(ZAV_SHM_SMALL_BUFFER, zav_shm_subscriber_receive(player, nullptr, 0, 0, nullptr));
    EXPECT_EQ("long one", next(player));
    EXPECT_EQ("next", next(player));
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Interface, shows_frames_where_they_lie_and_says_when_they_are_overwritten) {
    zav_shm_publisher_options options = {};
    options.size = sizeof options;
    options.name = "CAM_LOOP";
    options.history_bytes = 4096;
    options.frame_bytes_max = 4096;
    zav_shm_publisher camera = 0;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_open(&options, &camera)) << zav_shm_last_error();
    const auto player = subscriber(reading("PLAYER"));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "picture"));
    zav_shm_view view = 0;
    zav_shm_frame frame = {};
    frame.size = sizeof frame;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_receive_view(player, 5000, &view, &frame));
    EXPECT_EQ(0, std::memcmp(frame.payload, "picture", 7));
    int whole = 0;
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_view_is_whole(view, &whole));
    EXPECT_EQ(1, whole);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(ZAV_SHM_OK, publish(camera, std::string(4000, 'x')));
    }
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_view_is_whole(view, &whole));
    EXPECT_EQ(0, whole);

    // Another frame in the same view.
    const zav_shm_view before = view;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_seek(player, ZAV_SHM_OLDEST, 0));
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_receive_view(player, 5000, &view, &frame));
    EXPECT_EQ(before, view);
    EXPECT_EQ(4000U, frame.payload_bytes);
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_view_release(view));
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Interface, writes_in_place) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    void* room = nullptr;
    std::size_t room_bytes = 0;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_loan(camera, 100, &room, &room_bytes));
    ASSERT_LE(100U, room_bytes);
    std::memcpy(room, "in place", 8);
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_publisher_commit(camera, 8, nullptr));
    EXPECT_EQ("in place", next(player));
    EXPECT_EQ(ZAV_SHM_NO_RING, zav_shm_publisher_commit(camera, 8, nullptr));
    EXPECT_STREQ("nothing is on loan", zav_shm_last_error());
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_loan(camera, 100, &room, &room_bytes));
    EXPECT_EQ(ZAV_SHM_TOO_LARGE, zav_shm_publisher_commit(camera, std::size_t{1} << 30, nullptr));
    EXPECT_EQ(ZAV_SHM_TOO_LARGE,
              zav_shm_publisher_loan(camera, std::size_t{1} << 30, &room, &room_bytes));
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Interface, taps_seeks_and_waits_with_a_descriptor) {
    const auto camera = publisher();
    for (const char* text : {"1", "2", "3"}) {
        ASSERT_EQ(ZAV_SHM_OK, publish(camera, text, *text == '2' ? ZAV_SHM_KEY_FRAME : 0));
    }
    const auto tap = subscriber(reading(nullptr, ZAV_SHM_OLDEST));
    EXPECT_EQ("1", next(tap));
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_seek(tap, ZAV_SHM_LAST_KEY_FRAME, 0));
    EXPECT_EQ("2", next(tap));
    EXPECT_EQ("3", next(tap));
    int descriptor = -1;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_descriptor(tap, &descriptor));
    EXPECT_EQ("(timeout)", next(tap, 0));
    pollfd waited{descriptor, POLLIN, 0};
    EXPECT_EQ(0, poll(&waited, 1, 50));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "4"));
    EXPECT_EQ(1, poll(&waited, 1, 5000));
    EXPECT_EQ("4", next(tap, 0));
    EXPECT_EQ(ZAV_SHM_NOT_SERVED, zav_shm_subscriber_pair(tap, "CAM_LOOP", 100));
    zav_shm_subscriber_close(tap);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Interface, asks_for_key_frames_and_pairs) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    int requested = 7;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_key_frame_requested(camera, &requested));
    EXPECT_EQ(0, requested);
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_request_key_frame(player)) << zav_shm_last_error();
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_key_frame_requested(camera, &requested));
    EXPECT_EQ(1, requested);

    EXPECT_EQ(ZAV_SHM_OK, zav_shm_subscriber_pair(player, "NONE", 5000)) << zav_shm_last_error();
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_subscriber_pair(player, "CAM_LOOP", 5000));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "again"));
    EXPECT_EQ("again", next(player));
    EXPECT_GT(0, zav_shm_subscriber_pair(player, "NOBODY", 5000));
    EXPECT_STRNE("", zav_shm_last_error());
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Interface, ends_a_wait_without_limit) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    for (int i = 0; i < 20; ++i) {
        std::thread interrupting([player, i] {
            std::this_thread::sleep_for(std::chrono::milliseconds(i % 3));
            EXPECT_EQ(ZAV_SHM_OK, zav_shm_subscriber_interrupt(player));
        });
        EXPECT_EQ("(interrupted)", next(player, -1));
        interrupting.join();
    }
    EXPECT_EQ("(timeout)", next(player, 1));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "there it is"));
    EXPECT_EQ("there it is", next(player, -1));
    std::thread closing([player] {
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(ZAV_SHM_OK, zav_shm_subscriber_close(player));
    });
    EXPECT_EQ("(closed)", next(player, -1));
    closing.join();
    zav_shm_publisher_close(camera);
}

TEST_F(C_Interface, tells_where_it_stands) {
    zav_shm_publisher_options options = {};
    options.size = sizeof options;
    options.name = "NOBODY";
    zav_shm_publisher unknown = 0;
    ASSERT_EQ(ZAV_SHM_NOT_CONNECTED, zav_shm_publisher_open(&options, &unknown));
    const std::string message = zav_shm_last_error();
    EXPECT_NE("", message);
    zav_shm_state state = ZAV_SHM_STATE_CLOSED;
    std::array<char, 8> reason{};
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_state(unknown, &state, reason.data(), reason.size()));
    EXPECT_EQ(ZAV_SHM_STATE_REFUSED, state);
    EXPECT_EQ(message.substr(0, 7), reason.data());
    EXPECT_STREQ("refused", zav_shm_state_name(state));
    EXPECT_EQ(ZAV_SHM_REFUSED, publish(unknown, "frame"));
    zav_shm_publisher_close(unknown);
}

}  // namespace
