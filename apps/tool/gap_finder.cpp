// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/gap_finder.h"

#include <utility>

namespace zav_shm::tool {

Gap_Finder::Gap Gap_Finder::before(const Received_Frame& frame) {
    const std::uint64_t epoch = frame.verified ? frame.header.epoch : 0;
    const bool is_last = frame.verified && (frame.header.flags & frame_flag::end_of_stream) != 0;
    const bool is_other = std::exchange(epoch_, epoch) != epoch;
    const bool follows = std::exchange(before_was_last_, is_last) && frame.header.sequence == 1;
    if (!std::exchange(has_before_, true)) {
        return {};
    }
    return {.lost = frame.before.lost(),
            .dropped = frame.before.dropped,
            .skipped = frame.before.skipped,
            .other_producer = is_other && !follows};
}

}  // namespace zav_shm::tool
