// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "frame/frame_header.h"
#include "ring/ring_layout.h"

// A frame as a record of a ring: the frame header, and the payload behind it. The header's commit
// field is not used there: the ring's own rule tells whether a record is whole.

namespace zav_shm::frame_record {

/// What the flags of a frame's record say beside ring_flag::key.
inline constexpr std::uint32_t foreign = 2;  // of a producer without a header of ours

/// Of a frame with these frame_flags: reading may begin where decoding may.
constexpr std::uint32_t flags_of(std::uint16_t frame_flags) {
    return (frame_flags & (frame_flag::key_frame | frame_flag::recovery_point)) != 0
               ? ring_flag::key
               : 0;
}

}  // namespace zav_shm::frame_record
