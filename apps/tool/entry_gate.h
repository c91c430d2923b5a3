// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "frame/received_frame.h"

namespace zav_shm::tool {

/// Keeps what cannot be decoded out of a recording: it opens at a key frame or recovery point, and
/// after each gap it opens again at the next one.
///
/// A gap is what was lost or dropped, and the change to another instance of the producer, unless
/// the former one said that its stream ends and the new one's begins with its first frame. Frames
/// without a header of ours pass as they come.
///
/// A stream that has never had an entry point, sound for instance, is not waited for after a gap.
class Entry_Gate {
public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        bool waits_at_begin = true;
        bool waits_after_gap = true;
    };

    /// What lies between the frame that passed last and the one that passed before it.
    struct Gap {
        std::uint64_t lost = 0;     // frames that never came
        std::uint64_t dropped = 0;  // came, and were dropped as the queue was full
        std::uint64_t skipped = 0;  // left out here, on the way to an entry point
        bool other_producer = false;

        bool is_none() const { return lost + dropped + skipped == 0 && !other_producer; }
    };

    explicit Entry_Gate(Options options) : options_(options), waits_(options.waits_at_begin) {}

    /// Whether the frame is to be recorded.
    bool lets_pass(const Received_Frame& frame, Clock::time_point now);

    /// Of the frame that passed last; none of the first one.
    const Gap& gap() const { return gap_; }

    /// A frame has passed.
    bool has_begun() const { return has_begun_; }

    /// How long frames have been left out for want of an entry point.
    std::optional<Clock::duration> waits_for(Clock::time_point now) const;

    /// Frames left out since the last one that passed, or since the beginning.
    std::uint64_t left_out() const { return coming_.skipped; }

private:
    void note_gap(const Received_Frame& frame);

    const Options options_;
    bool waits_;
    bool has_begun_ = false;
    bool has_seen_entry_ = false;
    std::optional<Clock::time_point> waits_since_;  // the first frame that was left out
    Gap gap_;
    Gap coming_;  // what has gathered for the next frame that passes

    // Of the frame before, whether it passed or not.
    bool has_before_ = false;
    bool before_was_last_ = false;  // of its stream
    std::uint64_t epoch_ = 0;       // 0 without a header
};

}  // namespace zav_shm::tool
