// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "frame/received_frame.h"

namespace zav_shm {

/// What a subscriber knows of the order of frames: finds losses, restarts and repetitions, and
/// leaves out what cannot be decoded if that is wanted.
///
/// Threads  one.
class Sequence_Watch {
public:
    enum class Verdict {
        hand_out,
        repeated,  // was taken before; as if it had not come
        skipped    // before the key frame that is waited for
    };

    Sequence_Watch(bool start_at_key_frame, bool key_frame_after_loss)
        : key_frame_after_loss_(key_frame_after_loss), waits_for_key_(start_at_key_frame) {}

    /// Sets `lost`, `skipped` and `epoch_changed` of a frame that is to be handed out.
    Verdict judge(Received_Frame& frame);

    /// How many frames were lost right before the one judged last.
    std::uint64_t lost_now() const { return lost_now_; }

private:
    bool is_repeated(const Received_Frame& frame) const;

    bool key_frame_after_loss_;
    bool waits_for_key_;
    bool handed_out_ = false;  // any frame, ever
    std::uint64_t epoch_ = 0;  // of the frame judged last; 0 before the first
    std::uint64_t sequence_ = 0;
    std::uint64_t lost_now_ = 0;

    // Since the frame handed out last.
    std::uint64_t lost_ = 0;
    std::uint64_t skipped_ = 0;
    bool epoch_changed_ = false;
};

}  // namespace zav_shm
