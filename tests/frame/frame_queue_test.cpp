// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_queue.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

using namespace std::chrono_literals;
using zav_shm::Frame_Queue;
using zav_shm::Overflow_Policy;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

namespace {

constexpr bool key = true;
constexpr std::size_t plenty = 1 << 20;

Received_Frame frame(std::uint64_t sequence, bool is_key = false, std::size_t length = 10) {
    Received_Frame made;
    made.verified = true;
    made.header.sequence = sequence;
    made.header.flags = is_key ? zav_shm::frame_flag::key_frame : 0;
    made.bytes.resize(length);
    made.length = length;
    return made;
}

std::uint64_t push(Frame_Queue& queue, std::uint64_t sequence, bool is_key = false,
                   std::size_t length = 10) {
    Received_Frame made = frame(sequence, is_key, length);
    return queue.push(made);
}

// Sequence number of the next frame; 0 when there is none.
std::uint64_t pop(Frame_Queue& queue, Received_Frame& into) {
    return queue.pop(into, 0ms) == Receive_Status::frame ? into.header.sequence : 0;
}

std::uint64_t pop(Frame_Queue& queue) {
    Received_Frame taken;
    return pop(queue, taken);
}

struct Queue : testing::Test {
    static std::unique_ptr<Frame_Queue> of(std::size_t frames, Overflow_Policy overflow,
                                           std::size_t bytes = plenty) {
        auto queue = std::make_unique<Frame_Queue>(Frame_Queue::Limits{frames, bytes, overflow});
        queue->open();
        return queue;
    }
};

TEST_F(Queue, hands_out_in_order) {
    const auto queue = of(3, Overflow_Policy::drop_oldest);
    for (std::uint64_t i = 1; i <= 20; ++i) {
        push(*queue, i);
        EXPECT_EQ(pop(*queue), i);
    }
    EXPECT_EQ(pop(*queue), 0U);
}

TEST_F(Queue, full_of_frames_drops_the_oldest_and_tells_the_next) {
    const auto queue = of(2, Overflow_Policy::drop_oldest);
    EXPECT_EQ(push(*queue, 1) + push(*queue, 2), 0U);
    EXPECT_EQ(push(*queue, 3), 1U);
    EXPECT_EQ(push(*queue, 4), 1U);
    Received_Frame taken;
    EXPECT_EQ(pop(*queue, taken), 3U);
    EXPECT_EQ(taken.dropped, 2U);
    EXPECT_EQ(pop(*queue, taken), 4U);
    EXPECT_EQ(taken.dropped, 0U);
}

TEST_F(Queue, full_of_bytes_drops_as_many_as_it_takes) {
    const auto queue = of(10, Overflow_Policy::drop_oldest, 100);
    push(*queue, 1, false, 40);
    push(*queue, 2, false, 40);
    EXPECT_EQ(push(*queue, 3, false, 90), 2U);
    EXPECT_EQ(pop(*queue), 3U);
}

TEST_F(Queue, a_single_frame_beyond_the_bytes_fits) {
    const auto queue = of(10, Overflow_Policy::drop_oldest, 100);
    EXPECT_EQ(push(*queue, 1, false, 5000), 0U);
    EXPECT_EQ(pop(*queue), 1U);
}

TEST_F(Queue, losses_of_a_dropped_frame_are_told_by_the_next) {
    const auto queue = of(1, Overflow_Policy::newest_only);
    Received_Frame first = frame(5);
    first.lost = 3;
    first.epoch_changed = true;
    queue->push(first);
    push(*queue, 6);
    Received_Frame taken;
    EXPECT_EQ(pop(*queue, taken), 6U);
    EXPECT_EQ(taken.lost, 3U);
    EXPECT_EQ(taken.dropped, 1U);
    EXPECT_TRUE(taken.epoch_changed);
}

TEST_F(Queue, newest_only_keeps_one) {
    const auto queue = of(10, Overflow_Policy::newest_only);
    for (std::uint64_t i = 1; i <= 5; ++i) {
        push(*queue, i);
    }
    Received_Frame taken;
    EXPECT_EQ(pop(*queue, taken), 5U);
    EXPECT_EQ(taken.dropped, 4U);
}

TEST_F(Queue, keeps_what_can_be_decoded_and_goes_on_at_a_key_frame) {
    const auto queue = of(3, Overflow_Policy::drop_until_key_frame);
    push(*queue, 1, key);
    push(*queue, 2);
    push(*queue, 3);
    EXPECT_EQ(push(*queue, 4), 1U);
    EXPECT_EQ(pop(*queue), 1U);
    EXPECT_EQ(push(*queue, 5), 1U);  // there is room again, but 4 is missing
    EXPECT_EQ(push(*queue, 6, key), 0U);
    EXPECT_EQ(pop(*queue), 2U);
    EXPECT_EQ(pop(*queue), 3U);
    Received_Frame taken;
    EXPECT_EQ(pop(*queue, taken), 6U);
    EXPECT_EQ(taken.dropped, 2U);
}

// A stream with an IDR picture at its beginning only, and recovery points from then on.
TEST_F(Queue, goes_on_at_a_recovery_point) {
    const auto queue = of(1, Overflow_Policy::drop_until_key_frame);
    push(*queue, 1, key);
    EXPECT_EQ(push(*queue, 2), 1U);
    EXPECT_EQ(pop(*queue), 1U);
    EXPECT_EQ(push(*queue, 3), 1U);
    Received_Frame recovery = frame(4);
    recovery.header.flags = zav_shm::frame_flag::recovery_point;
    EXPECT_EQ(queue->push(recovery), 0U);
    EXPECT_EQ(pop(*queue), 4U);
}

TEST_F(Queue, a_key_frame_that_finds_it_still_full_empties_it) {
    const auto queue = of(2, Overflow_Policy::drop_until_key_frame);
    push(*queue, 1, key);
    push(*queue, 2);
    EXPECT_EQ(push(*queue, 3), 1U);
    EXPECT_EQ(push(*queue, 4, key), 2U);
    Received_Frame taken;
    EXPECT_EQ(pop(*queue, taken), 4U);
    EXPECT_EQ(taken.dropped, 3U);
}

TEST_F(Queue, a_stream_without_key_frames_does_not_wait_for_one) {
    const auto queue = of(2, Overflow_Policy::drop_until_key_frame);
    for (std::uint64_t i = 1; i <= 4; ++i) {
        push(*queue, i);
    }
    EXPECT_EQ(pop(*queue), 3U);
}

TEST_F(Queue, what_was_lost_of_a_former_epoch_is_not_told_by_the_next) {
    const auto queue = of(1, Overflow_Policy::drop_oldest);
    push(*queue, 1);
    Received_Frame other = frame(1);
    other.epoch_changed = true;
    queue->push(other);
    Received_Frame taken;
    EXPECT_EQ(pop(*queue, taken), 1U);
    EXPECT_TRUE(taken.epoch_changed);
    EXPECT_EQ(taken.dropped, 0U);
}

TEST_F(Queue, buffers_go_round) {
    const auto queue = of(4, Overflow_Policy::drop_oldest);
    Received_Frame in;
    Received_Frame out;
    std::set<const std::byte*> buffers;
    for (std::uint64_t i = 0; i < 1000; ++i) {
        in.length = 100;
        if (in.bytes.size() < in.length) {
            in.bytes.resize(in.length);
        }
        buffers.insert(in.bytes.data());
        queue->push(in);
        ASSERT_EQ(queue->pop(out, 0ms), Receive_Status::frame);
    }
    EXPECT_LE(buffers.size(), 3U);
}

TEST_F(Queue, frame_passes_when_it_would_be_the_only_one) {
    const auto queue = of(1, Overflow_Policy::drop_until_key_frame);
    Received_Frame first = frame(1, key);
    EXPECT_TRUE(queue->let_pass(first));
    EXPECT_EQ(first.payload().size(), 10U);
    EXPECT_EQ(queue->size(), 0U);
    push(*queue, 2);
    Received_Frame next = frame(3);
    EXPECT_FALSE(queue->let_pass(next)) << "one is before it";
    queue->close();
    queue->open();
    EXPECT_TRUE(queue->let_pass(next));
    queue->close();
    EXPECT_FALSE(queue->let_pass(next));
}

TEST_F(Queue, frame_does_not_pass_on_the_way_to_a_key_frame) {
    const auto queue = of(1, Overflow_Policy::drop_until_key_frame);
    Received_Frame first = frame(1, key);
    EXPECT_TRUE(queue->let_pass(first));
    push(*queue, 2);
    EXPECT_EQ(push(*queue, 3), 1U);
    EXPECT_EQ(pop(*queue), 2U) << "the key frame that passed is as good as one that was pushed";
    Received_Frame fourth = frame(4);
    EXPECT_FALSE(queue->let_pass(fourth));
    EXPECT_EQ(queue->push(fourth), 1U);
    Received_Frame fifth = frame(5, key);
    EXPECT_FALSE(queue->let_pass(fifth)) << "it has to tell of those before it";
    queue->push(fifth);
    Received_Frame taken;
    EXPECT_EQ(pop(*queue, taken), 5U);
    EXPECT_EQ(taken.dropped, 2U);
    Received_Frame sixth = frame(6);
    EXPECT_TRUE(queue->let_pass(sixth));
}

TEST_F(Queue, pop_waits_for_a_frame) {
    const auto queue = of(4, Overflow_Policy::drop_oldest);
    std::thread later([&queue] {
        std::this_thread::sleep_for(20ms);
        push(*queue, 9);
    });
    Received_Frame taken;
    EXPECT_EQ(queue->pop(taken, 10s), Receive_Status::frame);
    EXPECT_EQ(taken.header.sequence, 9U);
    later.join();
}

TEST_F(Queue, pop_times_out_and_leaves_the_frame_as_it_was) {
    const auto queue = of(4, Overflow_Policy::drop_oldest);
    Received_Frame kept = frame(3);
    EXPECT_EQ(queue->pop(kept, 1ms), Receive_Status::timeout);
    EXPECT_EQ(kept.header.sequence, 3U);
}

TEST_F(Queue, closing_ends_a_wait_and_empties_it) {
    const auto queue = of(4, Overflow_Policy::drop_oldest);
    std::thread later([&queue] {
        std::this_thread::sleep_for(20ms);
        queue->close();
    });
    Received_Frame taken;
    EXPECT_EQ(queue->pop(taken, 10s), Receive_Status::closed);
    later.join();
    queue->open();
    EXPECT_EQ(queue->size(), 0U);
}

}  // namespace
