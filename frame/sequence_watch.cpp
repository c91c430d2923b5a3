// SPDX-License-Identifier: Apache-2.0
#include "frame/sequence_watch.h"

namespace zav_shm {

bool Sequence_Watch::is_repeated(const Received_Frame& frame) const {
    return frame.verified && frame.header.epoch == epoch_ && frame.header.sequence <= sequence_;
}

Sequence_Watch::Verdict Sequence_Watch::judge(Received_Frame& frame) {
    lost_now_ = 0;
    if (is_repeated(frame)) {
        return Verdict::repeated;
    }
    if (frame.verified) {
        if (frame.header.epoch == epoch_) {
            lost_now_ = frame.header.sequence - sequence_ - 1;
        } else {
            epoch_changed_ = epoch_changed_ || epoch_ != 0;
            lost_ = skipped_ = 0;
        }
        epoch_ = frame.header.epoch;
        sequence_ = frame.header.sequence;
    }
    lost_ += lost_now_;
    if (key_frame_after_loss_ && (lost_now_ > 0 || epoch_changed_)) {
        waits_for_key_ = true;
    }
    if (waits_for_key_ && frame.verified && !frame.is_entry_point()) {
        ++skipped_;
        return Verdict::skipped;
    }
    waits_for_key_ = false;
    frame.lost = handed_out_ ? lost_ : 0;
    frame.skipped = handed_out_ ? skipped_ : 0;
    frame.epoch_changed = epoch_changed_;
    handed_out_ = true;
    lost_ = skipped_ = 0;
    epoch_changed_ = false;
    return Verdict::hand_out;
}

}  // namespace zav_shm
