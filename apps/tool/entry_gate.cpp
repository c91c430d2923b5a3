// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/entry_gate.h"

namespace zav_shm::tool {

bool Entry_Gate::lets_pass(const Received_Frame& frame, Clock::time_point now) {
    note_gap(frame);
    has_seen_entry_ = has_seen_entry_ || frame.is_entry_point();
    if (has_begun_ && !coming_.is_none() && options_.waits_after_gap && has_seen_entry_) {
        waits_ = true;
    }
    if (waits_ && frame.verified && !frame.is_entry_point()) {
        ++coming_.skipped;
        waits_since_ = waits_since_.value_or(now);
        return false;
    }
    gap_ = has_begun_ ? coming_ : Gap();
    coming_ = {};
    waits_since_.reset();
    waits_ = false;
    has_begun_ = true;
    return true;
}

void Entry_Gate::note_gap(const Received_Frame& frame) {
    const std::uint64_t epoch = frame.verified ? frame.header.epoch : 0;
    const bool is_other = has_before_ && epoch != epoch_;
    const bool follows = before_was_last_ && frame.header.sequence == 1;
    coming_.other_producer = coming_.other_producer || (is_other && !follows);
    coming_.lost += frame.lost;
    coming_.dropped += frame.dropped;
    has_before_ = true;
    epoch_ = epoch;
    before_was_last_ = frame.verified && (frame.header.flags & frame_flag::end_of_stream) != 0;
}

std::optional<Entry_Gate::Clock::duration> Entry_Gate::waits_for(Clock::time_point now) const {
    return waits_since_ ? std::optional(now - *waits_since_) : std::nullopt;
}

}  // namespace zav_shm::tool
