// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "raw_channel.h"

/// Counts what a consumer got. A process that is kept from the processor for longer than the
/// others wait for it may find the slot one frame ahead from then on; such a stall shows in a
/// frame's age or in the gap before it, and what is not as it should be after it counts apart.
class Frame_Tally {
public:
    /// @param period_ms  between two frames of the producer.
    explicit Frame_Tally(std::int64_t period_ms) : gap_max_ns_((period_ms + 20) * 1'000'000) {}

    void add(const Raw_Channel::Frame& frame) {
        const std::int64_t now = Raw_Channel::now_ns();
        const bool late = now - frame.sent_ns >= wait_max_ns ||
                          (former_ns_ != 0 && now - former_ns_ >= gap_max_ns_);
        stalled = stalled || late;
        former_ns_ = now;
        if (!frame.is_right) {
            ++(stalled ? after_stall : wrong);
            return;
        }
        if (frame.number <= former_) {
            ++(stalled ? after_stall : disordered);
        }
        ++right;
        former_ = frame.number;
    }

    int right = 0;
    int wrong = 0;
    int disordered = 0;
    int after_stall = 0;
    bool stalled = false;

private:
    static constexpr std::int64_t wait_max_ns = 20'000'000;  // the relay's, for a reader

    std::int64_t gap_max_ns_;
    std::int64_t former_ns_ = 0;
    std::uint64_t former_ = 0;
};
