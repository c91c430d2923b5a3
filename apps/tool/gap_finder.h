// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "frame/received_frame.h"

namespace zav_shm::tool {

/// Tells where frames of one stream are missing in a recording.
///
/// A gap is what was lost or left out, and the change to another instance of the producer, unless
/// the former one said that its stream ends and the new one's begins with its first frame.
class Gap_Finder {
public:
    struct Gap {
        std::uint64_t lost = 0;     // frames that never came
        std::uint64_t dropped = 0;  // that were passed over for the newest
        std::uint64_t skipped = 0;  // left out on the way to a key frame or recovery point
        bool other_producer = false;

        bool is_none() const { return lost + dropped + skipped == 0 && !other_producer; }
    };

    /// What lies before this frame, which is recorded next; nothing before the first one.
    Gap before(const Received_Frame& frame);

private:
    // Of the frame before.
    bool has_before_ = false;
    bool before_was_last_ = false;  // of its stream
    std::uint64_t epoch_ = 0;       // 0 without a header
};

}  // namespace zav_shm::tool
