// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>

#include "frame/frame_format.h"
#include "frame/frame_header.h"
#include "ipc/monotonic_clock.h"

// What a frame's header says, for a muxer.

namespace zav_shm::mux {

inline Frame_Format format_of(const ZAV_SHM_Frame_Header& header) {
    return {header.codec,    header.width,    header.height,
            header.rate_num, header.rate_den, header.channels};
}

/// From one time to another, of a header that may say anything.
inline std::int64_t apart_ns(std::int64_t to, std::int64_t from) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(to) -
                                     static_cast<std::uint64_t>(from));
}

/// Without what lies behind the fields of the format.
inline bool is_same(const Frame_Format& left, const Frame_Format& right) {
    return left.codec == right.codec && left.width == right.width && left.height == right.height &&
           left.rate_num == right.rate_num && left.rate_den == right.rate_den &&
           left.channels == right.channels;
}

/// How long it is presented.
///
/// @param otherwise  when the header does not say it
inline std::chrono::nanoseconds duration_of(const ZAV_SHM_Frame_Header& header,
                                            std::chrono::nanoseconds otherwise) {
    if (header.duration_us != 0) {
        return std::chrono::microseconds(header.duration_us);
    }
    const bool has_rate = header.width != 0 && header.rate_num != 0 && header.rate_den != 0;
    return has_rate ? std::chrono::nanoseconds(ns_per_second * header.rate_den / header.rate_num)
                    : otherwise;
}

}  // namespace zav_shm::mux
