// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_ledger.h"

#include <limits>

namespace zav_shm {

namespace {

// The time of publishing is what a producer has written, and may be any number.
std::int64_t latency_of(const Received_Frame& frame) {
    std::int64_t latency = 0;
    const bool overflows =
        __builtin_sub_overflow(frame.received_ns, frame.header.publish_ns, &latency);
    return overflows ? std::numeric_limits<std::int64_t>::max() : latency;
}

}  // namespace

Frame_Ledger::Frame_Ledger(bool start_at_key_frame, bool key_frame_after_loss)
    : start_at_key_frame_(start_at_key_frame),
      key_frame_after_loss_(key_frame_after_loss),
      watch_(start_at_key_frame, key_frame_after_loss) {}

void Frame_Ledger::begin_anew() { watch_ = {start_at_key_frame_, key_frame_after_loss_}; }

Sequence_Watch::Verdict Frame_Ledger::judge(Received_Frame& frame) {
    using Verdict = Sequence_Watch::Verdict;
    frame.lost = frame.dropped = frame.skipped = 0;
    frame.epoch_changed = false;
    const Verdict verdict = watch_.judge(frame);
    const Guard guard(mutex_);
    if (verdict == Verdict::repeated) {
        ++counters_.repeated;
        return verdict;
    }
    ++counters_.frames;
    counters_.bytes += frame.length;
    counters_.lost += watch_.lost_now();
    counters_.skipped += verdict == Verdict::skipped ? 1 : 0;
    counters_.foreign += frame.verified ? 0 : 1;
    if (frame.verified) {
        counters_.latency.add(latency_of(frame));
    }
    if (frame.is_key_frame()) {
        ++counters_.key_frames;
        counters_.last_key_frame_ns = frame.received_ns;
    }
    return verdict;
}

void Frame_Ledger::count(Slot_Reader::Take taken, bool noticed) {
    if (taken == Slot_Reader::Take::frame) {
        return;  // judge() counts it
    }
    const Guard guard(mutex_);
    switch (taken) {
        case Slot_Reader::Take::nothing:
            ++(noticed ? counters_.timeouts_no_frame : counters_.timeouts_no_relay);
            break;
        case Slot_Reader::Take::torn:
            ++counters_.torn;
            break;
        case Slot_Reader::Take::invalid:
            ++counters_.invalid;
            break;
        case Slot_Reader::Take::no_memory:
            ++counters_.no_memory;
            break;
        case Slot_Reader::Take::unmapped:
        case Slot_Reader::Take::unwritten:
        case Slot_Reader::Take::frame:
            break;
    }
}

void Frame_Ledger::dropped(std::uint64_t frames) {
    if (frames > 0) {
        const Guard guard(mutex_);
        counters_.dropped += frames;
    }
}

void Frame_Ledger::handed_out() {
    const Guard guard(mutex_);
    ++counters_.handed_out;
}

void Frame_Ledger::recovered() {
    const Guard guard(mutex_);
    ++counters_.recoveries;
}

Subscriber_Counters Frame_Ledger::counters() const {
    const Guard guard(mutex_);
    return counters_;
}

}  // namespace zav_shm
