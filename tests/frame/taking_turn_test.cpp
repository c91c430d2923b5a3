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

struct Turn : testing::Test {
    Turn() { turn.open(); }

    bool enter(std::chrono::milliseconds time, const Taking_Turn::Reasons& reasons) {
        const auto now = Taking_Turn::Clock::now();
        return turn.enter(now, now + time, reasons);
    }
    void leave() { turn.leave(Taking_Turn::Clock::now()); }

    Taking_Turn turn;
};

TEST_F(Turn, is_free_for_either_side) {
    EXPECT_TRUE(enter(0ms, none));
    leave();
    EXPECT_TRUE(turn.stand_in(no));
    turn.step_back();
}

TEST_F(Turn, of_the_thread_is_wanted_while_the_application_waits) {
    ASSERT_TRUE(turn.stand_in(no));
    EXPECT_FALSE(turn.is_wanted());
    std::thread application([this] {
        EXPECT_TRUE(enter(10s, none));
        leave();
    });
    EXPECT_TRUE(becomes_true([this] { return turn.is_wanted(); }));
    turn.step_back();
    application.join();
    EXPECT_FALSE(turn.is_wanted());
}

TEST_F(Turn, application_does_not_wait_beyond_its_time) {
    ASSERT_TRUE(turn.stand_in(no));
    const Stopwatch watch;
    EXPECT_FALSE(enter(20ms, none));
    EXPECT_GE(watch.elapsed(), 20ms);
    turn.step_back();
}

TEST_F(Turn, application_leaves_it_for_what_is_queued_or_in_the_way) {
    EXPECT_FALSE(enter(10s, {yes, no}));
    EXPECT_FALSE(enter(5ms, {no, yes}));
}

TEST_F(Turn, telling_has_the_application_look_again) {
    ASSERT_TRUE(turn.stand_in(no));
    std::atomic<bool> queued{false};
    std::thread application([&] { EXPECT_FALSE(enter(60s, {[&] { return queued.load(); }, no})); });
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
    ASSERT_TRUE(enter(0ms, none));
    std::thread thread([&] {
        EXPECT_TRUE(turn.stand_in(no));
        stands_in = true;
        turn.step_back();
    });
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(stands_in);
    leave();
    EXPECT_TRUE(becomes_true([&] { return stands_in.load(); }));
    thread.join();
}

TEST_F(Turn, thread_stands_in_for_an_application_that_was_quick_and_stays_away_this_time) {
    ASSERT_TRUE(enter(0ms, none));
    auto now = Taking_Turn::Clock::now();
    turn.leave(now);
    ASSERT_TRUE(turn.enter(now + 50us, now + 10s, none));
    now = Taking_Turn::Clock::now();
    turn.leave(now);
    EXPECT_TRUE(turn.stand_in(no));
    EXPECT_GE(Taking_Turn::Clock::now() - now, 12ms);
    turn.step_back();
}

/// An application that is back from each frame after 50 us. That time is only said, so that a slow
/// machine does not make the application slow; it makes the thread stand in for a moment.
class Quick_Application {
public:
    explicit Quick_Application(Taking_Turn& turn) : turn_(turn) {
        enter(Taking_Turn::Clock::now());
        thread_ = std::thread([this] { run_thread(); });
    }
    ~Quick_Application() {
        ends_ = true;
        turn_.leave(Taking_Turn::Clock::now());
        turn_.close();
        thread_.join();
    }

    void wait_for_frames(int frames, std::chrono::milliseconds interval) {
        for (int frame = 0; frame < frames; ++frame) {
            enter(wait_for_frame(interval) + 50us);
        }
    }

    /// How long it takes until the thread stands in for one that does not come back from a frame.
    std::chrono::milliseconds stay_away_from_next(std::chrono::milliseconds interval) {
        wait_for_frame(interval);
        const Stopwatch watch;
        EXPECT_TRUE(becomes_true([this] { return stands_in_.load(); }));
        const auto time = watch.elapsed();
        enter(Taking_Turn::Clock::now());
        return time;
    }

    /// How often the thread was awake beside it, without what a slow machine's late frames make.
    int wakings() const { return wakings_ - 2 * late_; }

private:
    Taking_Turn::Clock::time_point wait_for_frame(std::chrono::milliseconds interval) {
        const Stopwatch watch;
        auto left = interval;
        for (; left > 20ms; left -= 20ms) {
            std::this_thread::sleep_for(20ms);
            turn_.stay(Taking_Turn::Clock::now());
        }
        std::this_thread::sleep_for(left);
        late_ += watch.elapsed() > interval + 5ms ? 1 : 0;
        receives_ = false;
        const auto now = Taking_Turn::Clock::now();
        turn_.leave(now);
        return now;
    }

    void enter(Taking_Turn::Clock::time_point now) {
        EXPECT_TRUE(turn_.enter(now, now + 10s, none));
        receives_ = true;
    }

    void run_thread() {
        const auto look = [this] {
            wakings_ += receives_ ? 1 : 0;
            return false;
        };
        while (turn_.stand_in(look)) {
            stands_in_ = true;
            becomes_true([this] { return turn_.is_wanted() || ends_; });
            stands_in_ = false;
            turn_.step_back();
        }
    }

    Taking_Turn& turn_;
    std::atomic<bool> receives_{false};
    std::atomic<int> wakings_{0};
    int late_ = 0;
    std::atomic<bool> stands_in_{false};
    std::atomic<bool> ends_{false};
    std::thread thread_;
};

TEST_F(Turn, thread_sleeps_on_beside_an_application_that_is_back_at_once) {
    Quick_Application application(turn);
    application.wait_for_frames(20, 33ms);
    EXPECT_LT(application.wakings(), 10) << "once for each frame would be 20 times";
}

TEST_F(Turn, thread_sleeps_on_at_a_greater_rate) {
    Quick_Application application(turn);
    application.wait_for_frames(30, 17ms);
    EXPECT_LT(application.wakings(), 15) << "once for each frame would be 30 times";
}

TEST_F(Turn, thread_stands_in_for_an_application_that_leaves_an_even_stream) {
    Quick_Application application(turn);
    application.wait_for_frames(12, 33ms);
    EXPECT_LT(application.stay_away_from_next(33ms), 500ms)
        << "while no frame is expected it sleeps for 1 s";
}

TEST_F(Turn, thread_that_sleeps_is_told_of_what_is_in_the_way) {
    ASSERT_TRUE(enter(0ms, none));
    std::atomic<bool> in_the_way{false};
    std::thread thread([&] { EXPECT_FALSE(turn.stand_in([&] { return in_the_way.load(); })); });
    std::this_thread::sleep_for(20ms);
    in_the_way = true;
    leave();
    EXPECT_FALSE(enter(5ms, {no, yes}));
    thread.join();
}

TEST_F(Turn, thread_with_other_work_does_not_take_it) { EXPECT_FALSE(turn.stand_in(yes)); }

// The thread cannot run between the two rings, as the application keeps it from its processor.
TEST_F(Turn, closing_wakes_the_thread_while_the_application_waits_on) {
    ASSERT_TRUE(enter(0ms, none));
    turn.leave(Taking_Turn::Clock::now() - 33ms);
    ASSERT_TRUE(enter(0ms, none));
    leave();
    ASSERT_TRUE(enter(0ms, none));
    std::thread thread([this] {
        stay_on_processor(0);
        EXPECT_FALSE(turn.stand_in(no));
    });
    std::this_thread::sleep_for(60ms);  // no frame has come
    const Stopwatch watch;
    std::atomic<bool> is_first{true};
    std::thread application([&] {
        is_first = stay_on_processor(0) && go_before_all_others();
        while (watch.elapsed() < 50ms) {
            turn.stay(Taking_Turn::Clock::now());
            const Stopwatch pause;
            while (pause.elapsed() < 1ms) {
            }
        }
        leave();
    });
    std::this_thread::sleep_for(5ms);
    turn.close();
    thread.join();
    EXPECT_LT(watch.elapsed(), 900ms) << "without a frame an alarm is put off for 1 s";
    application.join();
    if (!is_first) {
        GTEST_SKIP() << "needs the right to real-time priority";
    }
}

TEST_F(Turn, closing_waits_until_the_application_has_left) {
    ASSERT_TRUE(enter(0ms, none));
    std::atomic<bool> closed{false};
    std::thread closing([&] {
        turn.close();
        closed = true;
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(closed);
    leave();
    closing.join();
    EXPECT_FALSE(enter(10s, none));
    EXPECT_FALSE(turn.stand_in(no));
}

}  // namespace
