// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "stream/frame_slot.h"

namespace zav_shm::bench {

// What a bench frame carries, so that its consumer can tell its age and whether it is whole.
//
//   header   off  0   8   publish_ns  CLOCK_MONOTONIC before distribute_frame
//                 8   8   sequence    from 1; 0 in a warm-up frame, which nobody counts
//   payload  first 8      sequence
//            last 8       sequence    a torn copy has two different ones
struct Frame_Stamp {
    std::int64_t publish_ns = 0;
    std::uint64_t sequence = 0;
};
static_assert(sizeof(Frame_Stamp) == sizeof(STREAM_FRAME_FORMAT::header_front));

/// Both sequences of the payload, next to each other.
inline constexpr std::size_t least_payload_bytes = 2 * sizeof(std::uint64_t);

inline unsigned char* payload_of(const STREAM_FRAME_FORMAT& frame) {
    return static_cast<unsigned char*>(frame.payload);
}

inline void write_stamp(STREAM_FRAME_FORMAT& frame, const Frame_Stamp& stamp) {
    std::memcpy(frame.header_front, &stamp, sizeof stamp);
    unsigned char* const payload = payload_of(frame);
    std::memcpy(payload, &stamp.sequence, sizeof stamp.sequence);
    std::memcpy(payload + frame.payload_length - sizeof stamp.sequence, &stamp.sequence,
                sizeof stamp.sequence);
}

inline Frame_Stamp read_stamp(const STREAM_FRAME_FORMAT& frame) {
    Frame_Stamp stamp;
    std::memcpy(&stamp, frame.header_front, sizeof stamp);
    return stamp;
}

/// True when the payload's first and last bytes belong to the frame of this header.
inline bool is_whole(const STREAM_FRAME_FORMAT& frame, const Frame_Stamp& stamp) {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    if (frame.payload_length < least_payload_bytes) {
        return false;
    }
    const unsigned char* const payload = payload_of(frame);
    std::memcpy(&first, payload, sizeof first);
    std::memcpy(&last, payload + frame.payload_length - sizeof last, sizeof last);
    return first == stamp.sequence && last == stamp.sequence;
}

}  // namespace zav_shm::bench
