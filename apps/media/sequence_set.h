// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "apps/media/picture_size.h"

namespace zav_shm::media {

/// A set of H.264 or H.265 is well below 100 bytes; one with every scaling list stays below this.
inline constexpr std::size_t set_bytes_max = 2048;

/// By so many pictures at most decoding goes ahead of presentation.
inline constexpr std::uint32_t reorder_depth_max = 16;

/// What an H.264 sequence parameter set says that slices are read with.
struct H264_Sequence {
    std::uint32_t id = 0;              // 0 .. 31
    unsigned frame_number_bits = 0;    // length of frame_num in slice headers
    bool has_separate_planes = false;  // slices say which colour plane they hold
    bool has_only_frames = true;       // no slice is a field's
    std::optional<Picture_Size> size;  // nothing when it contradicts itself or is too large
    std::optional<std::uint32_t> reorder_depth;  // nothing when it does not say so
};

/// @param nal_unit  with its header, without the start code.
/// @return nothing when it is cut, or holds a value that no stream may have.
std::optional<H264_Sequence> read_h264_sequence(std::span<const std::byte> nal_unit);

/// What an H.265 sequence parameter set says.
struct H265_Sequence {
    std::optional<Picture_Size> size;            // as of H.264
    std::optional<std::uint32_t> reorder_depth;  // likewise
};

/// @param nal_unit  likewise
/// @return nothing when it is cut in front of the pictures' size.
std::optional<H265_Sequence> read_h265_sequence(std::span<const std::byte> nal_unit);

}  // namespace zav_shm::media
