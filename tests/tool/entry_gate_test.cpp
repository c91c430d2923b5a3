// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "apps/tool/entry_gate.h"

namespace {

using namespace std::chrono_literals;
using zav_shm::Received_Frame;
using zav_shm::tool::Entry_Gate;

constexpr std::uint16_t key = zav_shm::frame_flag::key_frame;
constexpr std::uint16_t recovery_flag = zav_shm::frame_flag::recovery_point;
constexpr std::uint16_t end_flag = zav_shm::frame_flag::end_of_stream;

struct Sent {
    std::uint64_t sequence = 1;
    std::uint16_t flags = 0;
    std::uint64_t lost = 0;
    std::uint64_t dropped = 0;
    std::uint64_t epoch = 7;
};

Received_Frame frame_of(const Sent& sent) {
    Received_Frame frame;
    frame.verified = true;
    frame.header.epoch = sent.epoch;
    frame.header.sequence = sent.sequence;
    frame.header.flags = sent.flags;
    frame.lost = sent.lost;
    frame.dropped = sent.dropped;
    return frame;
}

struct Gate : testing::Test {
    bool passes(const Sent& sent) { return gate.lets_pass(frame_of(sent), now); }

    Entry_Gate gate{{}};
    Entry_Gate::Clock::time_point now{100s};
};

TEST_F(Gate, opens_at_the_first_key_frame) {
    EXPECT_FALSE(passes({.sequence = 5}));
    EXPECT_FALSE(passes({.sequence = 6}));
    EXPECT_EQ(gate.left_out(), 2U);
    EXPECT_FALSE(gate.has_begun());
    EXPECT_TRUE(passes({.sequence = 7, .flags = key}));
    EXPECT_TRUE(gate.has_begun());
    EXPECT_TRUE(gate.gap().is_none()) << "what precedes the recording is no gap of it";
    EXPECT_TRUE(passes({.sequence = 8}));
}

TEST_F(Gate, opens_at_a_recovery_point) {
    EXPECT_FALSE(passes({.sequence = 5}));
    EXPECT_TRUE(passes({.sequence = 6, .flags = recovery_flag}));
}

TEST_F(Gate, opens_at_once_if_told_to_and_at_frames_without_a_header) {
    Entry_Gate any({.waits_at_begin = false, .waits_after_gap = true});
    EXPECT_TRUE(any.lets_pass(frame_of({.sequence = 5}), now));
    Received_Frame foreign;
    EXPECT_TRUE(gate.lets_pass(foreign, now));
    EXPECT_TRUE(gate.lets_pass(foreign, now));
    EXPECT_TRUE(gate.gap().is_none());
}

TEST_F(Gate, after_a_loss_opens_again_at_the_next_key_frame) {
    passes({.sequence = 1, .flags = key});
    EXPECT_FALSE(passes({.sequence = 4, .lost = 2}));
    EXPECT_FALSE(passes({.sequence = 5}));
    EXPECT_FALSE(passes({.sequence = 8, .lost = 1, .dropped = 1}));
    EXPECT_TRUE(passes({.sequence = 9, .flags = key}));
    EXPECT_EQ(gate.gap().lost, 3U);
    EXPECT_EQ(gate.gap().dropped, 1U);
    EXPECT_EQ(gate.gap().skipped, 3U);
    EXPECT_FALSE(gate.gap().other_producer);
    EXPECT_TRUE(passes({.sequence = 10}));
    EXPECT_TRUE(gate.gap().is_none());
}

TEST_F(Gate, lets_a_key_frame_right_behind_a_loss_pass_and_tells_the_loss) {
    passes({.sequence = 1, .flags = key});
    EXPECT_TRUE(passes({.sequence = 3, .flags = key, .lost = 1}));
    EXPECT_EQ(gate.gap().lost, 1U);
    EXPECT_EQ(gate.gap().skipped, 0U);
}

TEST_F(Gate, at_another_producer_opens_again_at_its_key_frame) {
    passes({.sequence = 1, .flags = key});
    EXPECT_FALSE(passes({.sequence = 40, .epoch = 8}));
    EXPECT_TRUE(passes({.sequence = 41, .flags = key, .epoch = 8}));
    EXPECT_TRUE(gate.gap().other_producer);
    EXPECT_EQ(gate.gap().skipped, 1U);
}

TEST_F(Gate, takes_a_stream_that_follows_the_end_of_another_for_its_continuation) {
    passes({.sequence = 1, .flags = key | end_flag});
    EXPECT_TRUE(passes({.sequence = 1, .flags = key, .epoch = 8}));
    EXPECT_TRUE(gate.gap().is_none());
    EXPECT_TRUE(passes({.sequence = 1, .flags = key, .epoch = 9}));
    EXPECT_TRUE(gate.gap().other_producer) << "the one before had not ended";
    EXPECT_TRUE(passes({.sequence = 2, .flags = end_flag, .epoch = 9}));
    EXPECT_TRUE(passes({.sequence = 3, .flags = key, .epoch = 10}));
    EXPECT_TRUE(gate.gap().other_producer) << "the beginning of the new one is missing";
}

TEST_F(Gate, keeps_all_if_told_to_and_tells_the_gaps) {
    Entry_Gate all({.waits_at_begin = true, .waits_after_gap = false});
    EXPECT_FALSE(all.lets_pass(frame_of({.sequence = 1}), now));
    EXPECT_TRUE(all.lets_pass(frame_of({.sequence = 2, .flags = key}), now));
    EXPECT_TRUE(all.lets_pass(frame_of({.sequence = 4, .lost = 1}), now));
    EXPECT_EQ(all.gap().lost, 1U);
}

TEST_F(Gate, does_not_wait_for_what_a_stream_never_had) {
    Entry_Gate any({.waits_at_begin = false, .waits_after_gap = true});
    EXPECT_TRUE(any.lets_pass(frame_of({.sequence = 1}), now));
    EXPECT_TRUE(any.lets_pass(frame_of({.sequence = 3, .lost = 1}), now));
    EXPECT_EQ(any.gap().lost, 1U);
}

TEST_F(Gate, tells_how_long_it_has_been_waiting) {
    EXPECT_EQ(gate.waits_for(now), std::nullopt) << "nothing came";
    EXPECT_FALSE(passes({.sequence = 5}));
    EXPECT_FALSE(gate.lets_pass(frame_of({.sequence = 6}), now + 1s));
    EXPECT_EQ(gate.waits_for(now + 3s), Entry_Gate::Clock::duration(3s));
    EXPECT_TRUE(gate.lets_pass(frame_of({.sequence = 7, .flags = key}), now + 4s));
    EXPECT_EQ(gate.waits_for(now + 5s), std::nullopt);
}

}  // namespace
