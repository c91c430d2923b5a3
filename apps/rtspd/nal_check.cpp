// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/nal_check.h"

#include <algorithm>

#include "apps/media/nal_scan.h"
#include "frame/frame_header.h"

namespace zav_shm::rtspd {

namespace {

constexpr unsigned forbidden_bit = 128;

// Types from here on stand for RTP's own packets.
constexpr unsigned h264_types_end = 24;
constexpr unsigned h265_types_end = 48;

constexpr unsigned h264_sequence_set = 7;
constexpr unsigned h265_sequence_set = 33;
constexpr std::size_t h264_sequence_set_bytes = 4;   // up to the level
constexpr std::size_t h265_sequence_set_bytes = 15;  // up to the level
constexpr std::size_t h264_head_bytes = 1;
constexpr std::size_t h265_head_bytes = 2;

unsigned at(std::span<const std::byte> bytes, std::size_t index) {
    return std::to_integer<unsigned>(bytes[index]);
}

bool begins_with_start_code(std::span<const std::byte> bytes) {
    std::size_t zeros = 0;
    while (zeros < bytes.size() && at(bytes, zeros) == 0) {
        ++zeros;
    }
    return zeros >= 2 && zeros < bytes.size() && at(bytes, zeros) == 1;
}

// The zero bytes behind a NAL unit are the start code's, or padding.
std::span<const std::byte> without_zeros(std::span<const std::byte> unit) {
    while (!unit.empty() && unit.back() == std::byte{0}) {
        unit = unit.first(unit.size() - 1);
    }
    return unit;
}

bool ends_with_start_code(std::span<const std::byte> bytes) {
    const auto end = without_zeros(bytes);
    return end.size() >= media::start_code.size() &&
           std::equal(media::start_code.rbegin(), media::start_code.rend(), end.rbegin());
}

bool is_h264(std::span<const std::byte> unit) {
    const unsigned type = at(unit, 0) & 31U;
    return unit.size() > h264_head_bytes && type != 0 && type < h264_types_end &&
           (type != h264_sequence_set || unit.size() >= h264_sequence_set_bytes);
}

bool is_h265(std::span<const std::byte> unit) {
    const unsigned type = (at(unit, 0) >> 1U) & 63U;
    return unit.size() > h265_head_bytes && type < h265_types_end &&
           (type != h265_sequence_set || unit.size() >= h265_sequence_set_bytes);
}

}  // namespace

bool is_sendable(std::uint32_t codec, std::span<const std::byte> access_unit) {
    if (!begins_with_start_code(access_unit) || ends_with_start_code(access_unit)) {
        return false;
    }
    bool has_unit = false;
    for (media::Nal_Scan scan(access_unit); scan.next();) {
        const auto unit = without_zeros(scan.nal_unit());
        if (unit.empty() || (at(unit, 0) & forbidden_bit) != 0 ||
            !(codec == codec::h264 ? is_h264(unit) : is_h265(unit))) {
            return false;
        }
        has_unit = true;
    }
    return has_unit;
}

}  // namespace zav_shm::rtspd
