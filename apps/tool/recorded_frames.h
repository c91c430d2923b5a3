// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <deque>

#include "apps/tool/frame_index.h"
#include "apps/tool/recording_target.h"
#include "frame/received_frame.h"

namespace zav_shm::tool {

/// The frames of a recording, counted and named in the index once they are whole in its file: what
/// is told of a recording is what is there, also when the medium is full.
class Recorded_Frames {
public:
    explicit Recorded_Frames(Frame_Index& index) : index_(index) {}

    /// What a frame has become in the file.
    struct Place {
        std::uint64_t bytes = 0;           // there; those of the frame are among them
        std::uint64_t payload_offset = 0;  // of the frame in these bytes
    };

    /// Remembers a frame that was handed to the file.
    void add(int stream, const Received_Frame& frame, const Place& place);

    /// The file has taken so many bytes since its beginning.
    void settle(std::uint64_t file_bytes);

    Recorded_Totals totals() const;

private:
    struct Pending {
        Frame_Index::Frame frame;
        Place place;
    };

    void count(const Pending& pending);

    Frame_Index& index_;
    std::deque<Pending> pending_;  // handed to the file, and not yet whole there
    std::uint64_t pending_bytes_ = 0;
    Recorded_Totals whole_;
};

}  // namespace zav_shm::tool
