// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "frame/frame_header.h"

namespace zav_shm {

/// Frames between one that is handed out and the one handed out before it, by cause.
struct Frame_Losses {
    // Lost.
    std::uint64_t overtaken = 0;  // the reader was slower than the history is long
    std::uint64_t left_out = 0;   // the publisher could not write them (too large), or they did not
                                  // come through the relay
    std::uint64_t no_memory = 0;  // there was none for the copy

    // Passed over, as the options say.
    std::uint64_t dropped = 0;  // Overflow_Policy::newest_only
    std::uint64_t skipped = 0;  // on the way to a key frame

    bool any() const { return (overtaken | left_out | no_memory | dropped | skipped) != 0; }
    std::uint64_t lost() const { return overtaken + left_out + no_memory; }
};

/// What comes with every frame, copied or in place.
struct Frame_Facts {
    bool is_key_frame() const { return (header.flags & frame_flag::key_frame) != 0; }
    bool is_recovery_point() const { return (header.flags & frame_flag::recovery_point) != 0; }

    /// A decoder may begin here: at a recovery point the first pictures may be incomplete.
    bool is_entry_point() const { return is_key_frame() || is_recovery_point(); }

    /// From the begin of writing to here, in nanoseconds. Meaningless for a frame that is foreign.
    std::int64_t age_ns() const {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(received_ns) -
                                         static_cast<std::uint64_t>(header.publish_ns));
    }

    ZAV_SHM_Frame_Header header = {};  // of a foreign producer: only payload_length is set
    std::uint64_t number = 0;          // of its record in the ring
    std::int64_t received_ns = 0;      // CLOCK_MONOTONIC

    bool verified = false;       // false: a foreign producer's, whose header says nothing
    bool epoch_changed = false;  // the first frame of a (re)started or another producer
    Frame_Losses before;         // what lies between it and the one before
};

/// One frame as a subscriber hands out a copy of it. Its buffer is used again by the next receive()
/// into the same object, so that nothing is allocated in the steady state.
struct Received_Frame : Frame_Facts {
    std::span<const std::byte> payload() const { return {bytes.data(), length}; }

    std::vector<std::byte> bytes;  // the room; the payload is its first `length` bytes
    std::size_t length = 0;
};

}  // namespace zav_shm
