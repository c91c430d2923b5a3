// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <deque>

#include "apps/tool/frame_index.h"
#include "frame/received_frame.h"

namespace zav_shm::tool {

/// The frames of a recording, counted and named in the index once they are whole in its file: what
/// is told of a recording is what is there, also when the medium is full.
class Recorded_Frames {
public:
    explicit Recorded_Frames(Frame_Index& index) : index_(index) {}

    /// Remembers a frame that was handed to the file.
    void add(int stream, const Received_Frame& frame);

    /// The file has taken so many bytes since its beginning.
    void settle(std::uint64_t file_bytes);

    /// Frames that were handed to the file, whole there or not yet.
    std::uint64_t handed_over() const { return frames_ + pending_.size(); }

    // Of those that are whole in the file.
    std::uint64_t frames() const { return frames_; }
    std::uint64_t bytes() const { return bytes_; }
    std::uint64_t key_frames() const { return key_frames_; }
    std::uint64_t recovery_points() const { return recovery_points_; }
    std::uint64_t first_sequence() const { return first_sequence_; }
    std::uint64_t last_sequence() const { return last_sequence_; }

private:
    struct Frame {
        int stream;
        std::uint64_t sequence;
        std::uint64_t bytes;
        Entry_Point entry;
    };

    void count(const Frame& frame);

    Frame_Index& index_;
    std::deque<Frame> pending_;
    std::uint64_t frames_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t key_frames_ = 0;
    std::uint64_t recovery_points_ = 0;
    std::uint64_t first_sequence_ = 0;
    std::uint64_t last_sequence_ = 0;
};

}  // namespace zav_shm::tool
