// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "frame/frame_header.h"

namespace zav_shm {

/// One frame as a subscriber hands it out. Its buffer is used again by the next receive() into
/// the same object, so that nothing is allocated in the steady state.
struct Received_Frame {
    std::span<const std::byte> payload() const { return {bytes.data(), length}; }
    bool is_key_frame() const { return (header.flags & frame_flag::key_frame) != 0; }
    bool is_recovery_point() const { return (header.flags & frame_flag::recovery_point) != 0; }

    /// A decoder may begin here: at a recovery point the first pictures may be incomplete.
    bool is_entry_point() const { return is_key_frame() || is_recovery_point(); }

    ZAV_SHM_Frame_Header header = {};  // of a foreign producer: only payload_length is set
    std::vector<std::byte> bytes;      // the room; the payload is its first `length` bytes
    std::size_t length = 0;
    std::int64_t received_ns = 0;  // CLOCK_MONOTONIC when the copy was complete

    bool verified = false;       // false: a foreign producer's, whose header says nothing
    bool epoch_changed = false;  // the first frame of a (re)started or another producer

    // Frames between this one and the one handed out before it, of the same epoch, by cause.
    std::uint64_t lost = 0;     // never got here, or torn
    std::uint64_t dropped = 0;  // got here, and were dropped as the queue was full
    std::uint64_t skipped = 0;  // got here, and were left out on the way to a key frame
};

}  // namespace zav_shm
