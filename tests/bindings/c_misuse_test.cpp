// SPDX-License-Identifier: Apache-2.0
//
// The C interface as it is used by mistake: an error value with a message, and nothing else.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include "c_frames_fixture.h"

using namespace std::chrono_literals;

namespace {

using C_Misuse = C_Frames;

template <class Options, class Open>
void expect_size_is_checked(Options options, const Open& open) {
    std::uint64_t handle = 42;
    for (const std::uint32_t size : {0U, 4U, static_cast<std::uint32_t>(sizeof options) - 1, 4097U,
                                     std::numeric_limits<std::uint32_t>::max()}) {
        options.size = size;
        EXPECT_EQ(ZAV_SHM_BAD_SIZE, open(&options, &handle)) << size;
        EXPECT_NE(nullptr, std::strstr(zav_shm_last_error(), std::to_string(size).c_str()));
    }
    EXPECT_EQ(42U, handle);
}

TEST_F(C_Misuse, refuses_handles_that_are_none) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    const std::array<std::uint64_t, 5> bad{0, 1, player + 4, camera + (std::uint64_t{1} << 40),
                                           std::numeric_limits<std::uint64_t>::max()};
    int number = 0;
    for (const std::uint64_t handle : bad) {
        EXPECT_GT(0, zav_shm_publisher_publish(handle, "x", 1, nullptr)) << handle;
        EXPECT_GT(0, zav_shm_publisher_close(handle)) << handle;
        EXPECT_GT(0, zav_shm_subscriber_receive(handle, nullptr, 0, 0, nullptr)) << handle;
        EXPECT_GT(0, zav_shm_subscriber_close(handle)) << handle;
        EXPECT_GT(0, zav_shm_view_is_whole(handle, &number)) << handle;
        EXPECT_GT(0, zav_shm_view_release(handle)) << handle;
    }
    EXPECT_EQ(ZAV_SHM_BAD_HANDLE, zav_shm_publisher_publish(player, "x", 1, nullptr));
    EXPECT_EQ(ZAV_SHM_BAD_HANDLE, zav_shm_subscriber_receive(camera, nullptr, 0, 0, nullptr));
    EXPECT_EQ(ZAV_SHM_BAD_HANDLE, zav_shm_view_release(camera));
    EXPECT_EQ(ZAV_SHM_BAD_HANDLE, zav_shm_publisher_close(0));
    EXPECT_STREQ("publisher 0: is none", zav_shm_last_error());
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_subscriber_close(player));
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_publisher_close(camera));
}

TEST_F(C_Misuse, recognises_handles_that_are_closed) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "x"));
    zav_shm_view view = 0;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_receive_view(player, 5000, &view, nullptr));
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_view_release(view));
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_close(player));
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_close(camera));

    int number = 0;
    void* room = nullptr;
    std::size_t bytes = 0;
    zav_shm_state state = {};
    zav_shm_frame frame = {};
    frame.size = sizeof frame;
    const auto closed = [](zav_shm_status status) { return status == ZAV_SHM_CLOSED; };
    EXPECT_TRUE(closed(publish(camera, "x")));
    EXPECT_TRUE(closed(zav_shm_publisher_loan(camera, 1, &room, &bytes)));
    EXPECT_TRUE(closed(zav_shm_publisher_commit(camera, 1, nullptr)));
    EXPECT_TRUE(closed(zav_shm_publisher_leave_out(camera, 1)));
    EXPECT_TRUE(closed(zav_shm_publisher_key_frame_requested(camera, &number)));
    EXPECT_TRUE(closed(zav_shm_publisher_state(camera, &state, nullptr, 0)));
    EXPECT_TRUE(closed(zav_shm_publisher_close(camera)));
    EXPECT_TRUE(closed(zav_shm_subscriber_receive(player, nullptr, 0, -1, nullptr)));
    EXPECT_TRUE(closed(zav_shm_subscriber_receive_view(player, -1, &view, &frame)));
    EXPECT_TRUE(closed(zav_shm_subscriber_seek(player, ZAV_SHM_OLDEST, 0)));
    EXPECT_TRUE(closed(zav_shm_subscriber_descriptor(player, &number)));
    EXPECT_TRUE(closed(zav_shm_subscriber_pair(player, "NONE", 1)));
    EXPECT_TRUE(closed(zav_shm_subscriber_interrupt(player)));
    EXPECT_TRUE(closed(zav_shm_subscriber_request_key_frame(player)));
    EXPECT_TRUE(closed(zav_shm_subscriber_close(player)));
    EXPECT_TRUE(closed(zav_shm_view_is_whole(view, &number)));
    EXPECT_TRUE(closed(zav_shm_view_release(view)));
    EXPECT_NE(nullptr, std::strstr(zav_shm_last_error(), "is closed"));
}

TEST_F(C_Misuse, refuses_null_pointers_and_values_out_of_range) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    const auto bad = [](zav_shm_status status) { return status == ZAV_SHM_BAD_ARGUMENT; };
    std::uint64_t handle = 0;
    auto options = reading("RECODER");
    EXPECT_TRUE(bad(zav_shm_subscriber_open(nullptr, &handle)));
    EXPECT_TRUE(bad(zav_shm_subscriber_open(&options, nullptr)));
    options.channel = -1;
    EXPECT_TRUE(bad(zav_shm_subscriber_open(&options, &handle)));
    EXPECT_STREQ("channel is -1, not 0 or more", zav_shm_last_error());
    options = reading("RECODER");
    options.start = 5;
    EXPECT_TRUE(bad(zav_shm_subscriber_open(&options, &handle)));
    options = reading("RECODER");
    options.overflow = 3;
    EXPECT_TRUE(bad(zav_shm_subscriber_open(&options, &handle)));
    options = reading("RECODER");
    options.producer = nullptr;
    EXPECT_TRUE(bad(zav_shm_subscriber_open(&options, &handle)));
    zav_shm_publisher_options nameless = {};
    nameless.size = sizeof nameless;
    EXPECT_TRUE(bad(zav_shm_publisher_open(&nameless, &handle)));
    EXPECT_TRUE(bad(zav_shm_publisher_open(nullptr, &handle)));
    EXPECT_EQ(0U, handle);

    std::size_t bytes = 0;
    zav_shm_frame_info info = {};
    info.size = sizeof info;
    info.flags = 65536;
    EXPECT_TRUE(bad(zav_shm_publisher_publish(camera, nullptr, 1, nullptr)));
    EXPECT_TRUE(bad(zav_shm_publisher_publish(camera, "x", 1, &info)));
    EXPECT_TRUE(bad(zav_shm_publisher_loan(camera, 1, nullptr, &bytes)));
    EXPECT_TRUE(bad(zav_shm_publisher_set_format(camera, nullptr)));
    EXPECT_TRUE(bad(zav_shm_publisher_key_frame_requested(camera, nullptr)));
    EXPECT_TRUE(bad(zav_shm_publisher_counters_of(camera, nullptr)));
    EXPECT_TRUE(bad(zav_shm_publisher_state(camera, nullptr, nullptr, 0)));
    EXPECT_TRUE(bad(zav_shm_subscriber_receive(player, nullptr, 1, 0, nullptr)));
    EXPECT_TRUE(bad(zav_shm_subscriber_receive_view(player, 0, nullptr, nullptr)));
    EXPECT_TRUE(bad(zav_shm_subscriber_seek(player, 9, 0)));
    EXPECT_TRUE(bad(zav_shm_subscriber_seek(player, ZAV_SHM_BACK, -1)));
    EXPECT_TRUE(bad(zav_shm_subscriber_descriptor(player, nullptr)));
    EXPECT_TRUE(bad(zav_shm_subscriber_pair(player, nullptr, 0)));
    EXPECT_EQ(ZAV_SHM_TOO_LARGE, zav_shm_publisher_publish(camera, "x", SIZE_MAX / 2, nullptr));
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_publisher_publish(camera, nullptr, 0, nullptr));
    EXPECT_STREQ("unknown status", zav_shm_status_name(-99));
    EXPECT_STREQ("unknown state", zav_shm_state_name(-99));
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Misuse, refuses_sizes_that_no_version_has_had) {
    zav_shm_publisher_options options = {};
    options.name = "CAM_LOOP";
    expect_size_is_checked(options, zav_shm_publisher_open);
    expect_size_is_checked(reading("PLAYER"), zav_shm_subscriber_open);
}

// Also of what is written: nothing behind the struct is touched.
TEST_F(C_Misuse, writes_into_no_struct_of_a_wrong_size) {
    const auto camera = publisher();
    struct {
        zav_shm_publisher_counters counters;
        std::uint64_t behind;
    } told = {};
    told.behind = 99;
    told.counters.size = sizeof told;
    EXPECT_EQ(ZAV_SHM_BAD_SIZE, zav_shm_publisher_counters_of(camera, &told.counters));
    told.counters.size = sizeof told.counters;
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_publisher_counters_of(camera, &told.counters));
    EXPECT_EQ(99U, told.behind);
    const auto player = subscriber(reading("PLAYER"));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "kept"));
    zav_shm_frame frame = {};
    std::array<char, 8> buffer{};
    EXPECT_EQ(ZAV_SHM_BAD_SIZE,
              zav_shm_subscriber_receive(player, buffer.data(), buffer.size(), 0, &frame));
    EXPECT_EQ("kept", next(player));  // it was not taken
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Misuse, tells_a_second_thread_that_the_subscriber_is_busy) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    std::thread waiting([player] {
        std::string got;
        do {
            got = next(player, -1);
        } while (got == "(busy)");  // beside the seek() below
        EXPECT_EQ("done", got);
    });
    // Busy as soon as the other thread waits.
    while (zav_shm_subscriber_seek(player, ZAV_SHM_NEWEST, 0) == ZAV_SHM_OK) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(ZAV_SHM_BUSY, zav_shm_subscriber_receive(player, nullptr, 0, -1, nullptr));
    EXPECT_STREQ("another thread is in a call of this subscriber", zav_shm_last_error());
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "done"));
    waiting.join();
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

TEST_F(C_Misuse, a_view_outlives_subscriber_publisher_and_ring) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "kept"));
    zav_shm_view view = 0;
    zav_shm_frame frame = {};
    frame.size = sizeof frame;
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_receive_view(player, 5000, &view, &frame));
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_subscriber_close(player));
    ASSERT_EQ(ZAV_SHM_OK, zav_shm_publisher_close(camera));
    remove_histories();
    EXPECT_EQ(0, std::memcmp(frame.payload, "kept", 4));
    int whole = 0;
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_view_is_whole(view, &whole));
    EXPECT_EQ(1, whole);
    EXPECT_EQ(ZAV_SHM_OK, zav_shm_view_release(view));
    EXPECT_EQ(ZAV_SHM_CLOSED, zav_shm_view_is_whole(view, &whole));
}

TEST_F(C_Misuse, refuses_the_parents_handles_in_a_forked_child) {
    const auto camera = publisher();
    const auto player = subscriber(reading("PLAYER"));
    const pid_t child = fork();
    if (child == 0) {
        alarm(5);  // a wait for a thread that is not there has no end
        const bool refused =
            publish(camera, "child's") == ZAV_SHM_CLOSED &&
            zav_shm_subscriber_receive(player, nullptr, 0, -1, nullptr) == ZAV_SHM_CLOSED &&
            zav_shm_subscriber_close(player) == ZAV_SHM_CLOSED &&
            zav_shm_publisher_close(camera) == ZAV_SHM_CLOSED;
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    ASSERT_EQ(ZAV_SHM_OK, publish(camera, "parent's"));
    EXPECT_EQ("parent's", next(player));
    zav_shm_subscriber_close(player);
    zav_shm_publisher_close(camera);
}

// Everything at once: no call crashes, and each handle is closed by exactly one of them.
TEST_F(C_Misuse, survives_threads_that_use_and_close_the_same_handles) {
    for (int round = 0; round < 10; ++round) {
        const auto camera = publisher();
        const auto player = subscriber(reading("PLAYER"));
        std::atomic<int> closed{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                zav_shm_view view = 0;
                for (int turn = 0; turn < 50; ++turn) {
                    zav_shm_publisher_publish(camera, "x", 1, nullptr);
                    zav_shm_subscriber_receive(player, nullptr, 0, 0, nullptr);
                    zav_shm_subscriber_receive_view(player, 0, &view, nullptr);
                    zav_shm_subscriber_interrupt(player);
                }
                if (view != 0) {
                    EXPECT_EQ(ZAV_SHM_OK, zav_shm_view_release(view));
                }
                if (i % 2 == 0) {
                    closed += zav_shm_publisher_close(camera) == ZAV_SHM_OK ? 1 : 0;
                    closed += zav_shm_subscriber_close(player) == ZAV_SHM_OK ? 1 : 0;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(2, closed);
    }
}

}  // namespace
