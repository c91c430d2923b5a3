// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "apps/audio/audio_splitter.h"

namespace zav_shm::audio {

/// The frame found last, held back until another one is found or the input ends.
class Held_Frame {
public:
    explicit Held_Frame(Audio_Receiver& receiver) : receiver_(receiver) {}

    /// Hands out the frame before, and holds this one.
    void replace(const Audio_Frame& frame) {
        release(false);
        bytes_.assign(frame.bytes.begin(), frame.bytes.end());
        frame_ = frame;
        is_there_ = true;
    }

    /// Hands out the frame, if there is one.
    void release(bool is_last) {
        if (is_there_) {
            frame_.bytes = bytes_;
            frame_.is_last = is_last;
            is_there_ = false;
            receiver_.take(frame_);
        }
    }

    bool is_there() const { return is_there_; }
    std::uint32_t samples() const { return frame_.samples; }
    void set_samples(std::uint32_t samples) { frame_.samples = samples; }

private:
    Audio_Receiver& receiver_;
    std::vector<std::byte> bytes_;
    Audio_Frame frame_;
    bool is_there_ = false;
};

}  // namespace zav_shm::audio
