// SPDX-License-Identifier: Apache-2.0
//
// Which traces are equal, and when the frames of one are due.
#include <gtest/gtest.h>

#include <functional>

#include "apps/tool/replay_clock.h"
#include "apps/tool/trace_comparison.h"
#include "tool/trace_maker.h"

namespace {

using namespace std::chrono_literals;
using zav_shm::tool::Replay_Clock;
using zav_shm::tool::Trace_Comparison;
using zav_shm::trace::Trace_Memory;

using Fill = std::function<void(Trace_Maker&)>;

std::string difference(const Trace_Maker& one, const Trace_Maker& other) {
    const Trace_Memory memory(one.bytes);
    const Trace_Memory other_memory(other.bytes);
    return Trace_Comparison(memory, other_memory).find_difference().value_or("");
}

std::string difference(const Fill& one, const Fill& other) {
    Trace_Maker maker;
    Trace_Maker other_maker;
    one(maker);
    other(other_maker);
    return difference(maker, other_maker);
}

void two_frames(Trace_Maker& maker) {
    maker.add(0, 1000);
    maker.add(0, 1040);
}

TEST(Trace_Comparison, does_not_see_epochs_clocks_losses_and_the_order_of_streams) {
    const auto fill = [](bool is_other) {
        return [is_other](Trace_Maker& maker) {
            maker.pts_ns = 5;
            maker.epoch = is_other ? 7 : 8;
            const std::int64_t later = is_other ? 256 * 1000 : 0;  // ends on the same byte
            maker.add(is_other ? 1 : 0, 1000 + later);
            maker.epoch = is_other ? 9 : 10;
            if (is_other) {
                maker.add_loss(1, 1020);
            }
            maker.add(is_other ? 1 : 0, 1040 + later);
            maker.finish();
        };
    };
    Trace_Maker one({{"CAM_LOOP", 0, 0}, {"CAM_LOOP", 0, 1}});
    Trace_Maker other({{"CAM_REC", 0, 1}, {"CAM_REC", 0, 0}});
    fill(false)(one);
    fill(true)(other);
    EXPECT_EQ(difference(one, other), "");
}

TEST(Trace_Comparison, tells_the_first_difference_and_where_it_is) {
    const std::string place = "CAM_LOOP/0/0, frame 2";
    EXPECT_EQ(difference(two_frames, [](auto& maker) { maker.add(0, 1000); }),
              place + ": the second one ends before it");
    EXPECT_EQ(difference([](auto& maker) { maker.add(0, 1000); }, two_frames),
              place + ": the first one ends before it");
    const auto second_frame = [&](const Fill& fill) {
        const std::string text = difference(two_frames, [&](Trace_Maker& maker) {
            maker.add(0, 1000);
            fill(maker);
        });
        EXPECT_EQ(text.rfind(place + " (at byte 349 and 349): ", 0), 0U) << text;
        return text.substr(text.find(": ") + 2);
    };
    EXPECT_EQ(second_frame([](auto& maker) {
                  maker.leave_out(2);
                  maker.add(0, 1040);
              }),
              "sequence 2 and 4");
    EXPECT_EQ(second_frame([](auto& maker) { maker.add(0, 1040, 1); }), "flags 0 and 1");
    EXPECT_EQ(second_frame([](auto& maker) {
                  maker.epoch = 1;
                  maker.add(0, 1040);
              }),
              "only in the second one its producer begins anew");
    EXPECT_EQ(second_frame([](auto& maker) {
                  maker.pts_ns = 3;
                  maker.add(0, 1040);
              }),
              "pts_ns -1040 and 3");
    EXPECT_EQ(second_frame([](auto& maker) { maker.add(0, 1040, 0, 6); }), "payload bytes 5 and 6");
    EXPECT_EQ(second_frame([](auto& maker) {
                  maker.pts_ns = -1040;
                  maker.add(0, 1041);
              }),
              "the payload differs from byte 0 on");
}

TEST(Trace_Comparison, tells_other_streams_and_damage) {
    Trace_Maker one;
    two_frames(one);
    EXPECT_EQ(difference(one, Trace_Maker({{"CAM_LOOP", 0, 0}})), "streams: 2 and 1");
    EXPECT_EQ(difference(one, Trace_Maker({{"CAM_LOOP", 0, 0}, {"CAM_LOOP", 0, 2}})),
              "CAM_LOOP/0/0, frame 1: the second one ends before it");
    Trace_Maker damaged;
    two_frames(damaged);
    damaged.bytes.back() ^= std::byte{1};
    for (const std::string& text : {difference(damaged, one), difference(damaged, damaged)}) {
        EXPECT_EQ(text.rfind("CAM_LOOP/0/0, frame 2: the first one is damaged at byte ", 0), 0U)
            << text;
    }
}

// ---- the clock ----

constexpr std::int64_t one_ms = 1'000'000;

TEST(Replay_Clock, counts_every_moment_from_the_first_one) {
    Replay_Clock clock(2);
    const Replay_Clock::Clock::time_point begin(5s);
    EXPECT_EQ(clock.due(1000 * one_ms, begin), begin);
    EXPECT_EQ(clock.due(1100 * one_ms, begin + 20ms), begin + 50ms);
    EXPECT_EQ(clock.due(1200 * one_ms, begin + 900ms), begin + 100ms) << "late, and nothing moves";
    EXPECT_EQ(clock.due(2200 * one_ms, begin + 950ms), begin + 600ms);
}

TEST(Replay_Clock, moves_after_a_stop_of_more_than_a_second) {
    Replay_Clock clock(1);
    const Replay_Clock::Clock::time_point begin(5s);
    EXPECT_EQ(clock.due(0, begin), begin);
    EXPECT_EQ(clock.due(40 * one_ms, begin + 60s), begin + 60s);
    EXPECT_EQ(clock.due(80 * one_ms, begin + 60s), begin + 60s + 40ms);
}

TEST(Replay_Clock, does_not_overflow_and_can_be_without_waits) {
    Replay_Clock clock(0.001);
    const Replay_Clock::Clock::time_point begin(5s);
    clock.due(0, begin);
    EXPECT_EQ(clock.due(std::int64_t{1} << 60, begin), begin + 24h * 366);
    Replay_Clock fast(0);
    EXPECT_EQ(fast.due(0, begin), begin);
    EXPECT_EQ(fast.due(std::int64_t{1} << 60, begin + 1s), begin + 1s);
}

}  // namespace
