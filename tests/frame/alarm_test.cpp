// SPDX-License-Identifier: Apache-2.0
#include "frame/alarm.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <thread>

#include "support/threads.h"

using namespace std::chrono_literals;
using zav_shm::Alarm;

namespace {

Alarm::Clock::time_point in(std::chrono::milliseconds time) { return Alarm::Clock::now() + time; }

TEST(Alarm_Clock, rings_at_its_time) {
    Alarm alarm;
    const auto time = in(30ms);
    alarm.set(time);
    alarm.wait();
    EXPECT_GE(Alarm::Clock::now(), time);
}

TEST(Alarm_Clock, rings_at_once_for_a_time_that_is_past) {
    Alarm alarm;
    alarm.set({});
    alarm.wait();
    alarm.has_rung();
    alarm.set(in(-1s));
    alarm.wait();
}

TEST(Alarm_Clock, rings_for_the_earlier_of_two_times) {
    Alarm alarm;
    const Stopwatch watch;
    alarm.set(in(60s));
    alarm.set(in(10ms));
    alarm.set(in(60s));
    alarm.wait();
    EXPECT_LT(watch.elapsed(), 30s);
}

TEST(Alarm_Clock, wakes_a_thread_that_sleeps_already) {
    Alarm alarm;
    std::thread sleeper([&] { alarm.wait(); });
    std::this_thread::sleep_for(20ms);
    alarm.set(Alarm::Clock::now());
    sleeper.join();
}

TEST(Alarm_Clock, rings_later_when_it_was_put_off) {
    Alarm alarm;
    alarm.set(in(10ms));
    const auto time = in(50ms);
    alarm.move_to(time);
    EXPECT_FALSE(alarm.rings_by(time - 1ms));
    EXPECT_TRUE(alarm.rings_by(time));
    alarm.wait();
    EXPECT_GE(Alarm::Clock::now(), time);
}

TEST(Alarm_Clock, knows_that_it_was_not_set_and_that_it_has_rung) {
    Alarm alarm;
    EXPECT_FALSE(alarm.rings_by(in(60s)));
    alarm.set(in(1ms));
    EXPECT_TRUE(alarm.rings_by(in(60s)));
    alarm.wait();
    alarm.has_rung();
    EXPECT_FALSE(alarm.rings_by(in(60s)));
}

TEST(Alarm_Clock, can_be_set_anew_when_it_has_rung) {
    Alarm alarm;
    alarm.set(in(1ms));
    alarm.wait();
    alarm.has_rung();
    const auto time = in(20ms);
    alarm.set(time);
    alarm.wait();
    EXPECT_GE(Alarm::Clock::now(), time);
}

TEST(Alarm_Clock, rings_now_and_then_when_there_is_no_descriptor) {
    rlimit former = {};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit none = {0, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    Alarm alarm;
    setrlimit(RLIMIT_NOFILE, &former);
    const Stopwatch watch;
    alarm.set(in(60s));
    alarm.wait();
    EXPECT_LT(watch.elapsed(), 30s);
}

}  // namespace
