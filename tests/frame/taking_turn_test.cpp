// SPDX-License-Identifier: Apache-2.0
#include "frame/taking_turn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/threads.h"

using namespace std::chrono_literals;
using zav_shm::Taking_Turn;

namespace {

bool no() { return false; }
bool yes() { return true; }

const Taking_Turn::Reasons none{no, no};

std::chrono::steady_clock::time_point in(std::chrono::milliseconds time) {
    return std::chrono::steady_clock::now() + time;
}

struct Turn : testing::Test {
    Turn() { turn.open(); }
    Taking_Turn turn;
};

TEST_F(Turn, is_free_for_either_side) {
    EXPECT_TRUE(turn.enter(in(0ms), none));
    turn.leave();
    EXPECT_TRUE(turn.stand_in(no));
    turn.step_back();
}

TEST_F(Turn, of_the_thread_is_wanted_while_the_application_waits) {
    ASSERT_TRUE(turn.stand_in(no));
    EXPECT_FALSE(turn.is_wanted());
    std::thread application([this] {
        EXPECT_TRUE(turn.enter(in(10s), none));
        turn.leave();
    });
    EXPECT_TRUE(becomes_true([this] { return turn.is_wanted(); }));
    turn.step_back();
    application.join();
    EXPECT_FALSE(turn.is_wanted());
}

TEST_F(Turn, application_does_not_wait_beyond_its_time) {
    ASSERT_TRUE(turn.stand_in(no));
    const Stopwatch watch;
    EXPECT_FALSE(turn.enter(in(20ms), none));
    EXPECT_GE(watch.elapsed(), 20ms);
    turn.step_back();
}

TEST_F(Turn, application_leaves_it_for_what_is_queued_or_in_the_way) {
    EXPECT_FALSE(turn.enter(in(10s), {yes, no}));
    EXPECT_FALSE(turn.enter(in(5ms), {no, yes}));
}

TEST_F(Turn, telling_has_the_application_look_again) {
    ASSERT_TRUE(turn.stand_in(no));
    std::atomic<bool> queued{false};
    std::thread application([&] {
        EXPECT_FALSE(turn.enter(in(60s), {[&] { return queued.load(); }, no}));
    });
    EXPECT_TRUE(becomes_true([this] { return turn.is_wanted(); }));
    const Stopwatch watch;
    queued = true;
    turn.tell();
    application.join();
    EXPECT_LT(watch.elapsed(), 30s);
    turn.step_back();
}

// The relay waits 20 ms for a frame to be read.
TEST_F(Turn, thread_stands_in_for_an_application_that_stays_away) {
    std::atomic<bool> stands_in{false};
    ASSERT_TRUE(turn.enter(in(0ms), none));
    std::thread thread([&] {
        EXPECT_TRUE(turn.stand_in(no));
        stands_in = true;
        turn.step_back();
    });
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(stands_in);
    turn.leave();
    EXPECT_TRUE(becomes_true([&] { return stands_in.load(); }));
    thread.join();
}

TEST_F(Turn, thread_with_other_work_does_not_take_it) { EXPECT_FALSE(turn.stand_in(yes)); }

TEST_F(Turn, closing_waits_until_the_application_has_left) {
    ASSERT_TRUE(turn.enter(in(0ms), none));
    std::atomic<bool> closed{false};
    std::thread closing([&] {
        turn.close();
        closed = true;
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(closed);
    turn.leave();
    closing.join();
    EXPECT_FALSE(turn.enter(in(10s), none));
    EXPECT_FALSE(turn.stand_in(no));
}

}  // namespace
