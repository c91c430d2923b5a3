// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_ledger.h"

#include <gtest/gtest.h>

#include <limits>

#include "frame/frame_format.h"

using zav_shm::Frame_Ledger;
using Take = zav_shm::Slot_Reader::Take;

namespace {

zav_shm::Received_Frame frame_of(std::uint64_t sequence) {
    zav_shm::Received_Frame frame;
    frame.verified = true;
    frame.header.epoch = 1;
    frame.header.sequence = sequence;
    frame.length = 100;
    return frame;
}

TEST(Ledger, counts_waits_by_what_ended_them) {
    Frame_Ledger ledger(false, false);
    ledger.count(Take::nothing, true);
    ledger.count(Take::nothing, false);
    ledger.count(Take::nothing, false);
    ledger.count(Take::torn, true);
    ledger.count(Take::invalid, true);
    ledger.count(Take::no_memory, true);
    ledger.count(Take::unmapped, true);
    ledger.count(Take::unwritten, true);
    ledger.count(Take::frame, true);
    const auto counted = ledger.counters();
    EXPECT_EQ(counted.timeouts_no_frame, 1U);
    EXPECT_EQ(counted.timeouts_no_relay, 2U);
    EXPECT_EQ(counted.torn, 1U);
    EXPECT_EQ(counted.invalid, 1U);
    EXPECT_EQ(counted.no_memory, 1U);
    EXPECT_EQ(counted.frames, 0U);
}

// The difference of both does not fit; with -fsanitize=undefined that ends the process.
TEST(Ledger, bears_any_time_of_publishing) {
    Frame_Ledger ledger(false, false);
    std::uint64_t sequence = 0;
    for (const std::int64_t published :
         {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max(),
          std::int64_t{-1}, std::int64_t{0}}) {
        auto frame = frame_of(++sequence);
        frame.header.publish_ns = published;
        frame.received_ns = 1'000'000;
        static_cast<void>(ledger.judge(frame));
    }
    const auto latency = ledger.counters().latency;
    EXPECT_EQ(latency.count(), 4U);
    EXPECT_EQ(latency.buckets.back(), 1U) << "of the one that was published long ago";
    EXPECT_EQ(latency.buckets.front(), 1U) << "of the one that is to be published in the future";
}

TEST(Ledger, counts_on_over_a_new_beginning_which_is_no_loss) {
    Frame_Ledger ledger(false, false);
    auto frame = frame_of(1);
    static_cast<void>(ledger.judge(frame));
    frame = frame_of(4);
    static_cast<void>(ledger.judge(frame));
    EXPECT_EQ(frame.lost, 2U);
    ledger.begin_anew();
    frame = frame_of(9);
    static_cast<void>(ledger.judge(frame));
    EXPECT_EQ(frame.lost, 0U);
    ledger.dropped(0);
    ledger.dropped(2);
    ledger.handed_out();
    ledger.recovered();
    const auto counted = ledger.counters();
    EXPECT_EQ(counted.frames, 3U);
    EXPECT_EQ(counted.bytes, 300U);
    EXPECT_EQ(counted.lost, 2U);
    EXPECT_EQ(counted.dropped, 2U);
    EXPECT_EQ(counted.handed_out, 1U);
    EXPECT_EQ(counted.recoveries, 1U);
}

TEST(Names, of_outcomes_and_states_are_what_programs_print) {
    using zav_shm::Frame_State;
    using zav_shm::name_of;
    using zav_shm::Publish_Outcome;
    EXPECT_STREQ(name_of(Publish_Outcome::delivered), "delivered");
    EXPECT_STREQ(name_of(Publish_Outcome::no_consumer), "no consumer");
    EXPECT_STREQ(name_of(Publish_Outcome::too_large), "too large");
    EXPECT_STREQ(name_of(Publish_Outcome::no_center), "no center");
    EXPECT_STREQ(name_of(Publish_Outcome::refused), "refused");
    EXPECT_STREQ(name_of(Frame_State::closed), "closed");
    EXPECT_STREQ(name_of(Frame_State::connected), "connected");
    EXPECT_STREQ(name_of(Frame_State::waiting_for_center), "waiting for center");
    EXPECT_STREQ(name_of(Frame_State::waiting_for_producer), "waiting for producer");
}

}  // namespace
