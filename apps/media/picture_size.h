// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "apps/media/nal_unit.h"

namespace zav_shm::media {

/// Width and height as they are displayed, in pixels.
struct Picture_Size {
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    bool operator==(const Picture_Size&) const = default;
};

/// Reads the picture's size from the first sequence parameter set in an access unit.
///
/// @return nothing when there is no such set, or one that is cut, contradictory or larger than
///         16384 pixels in a direction.
std::optional<Picture_Size> picture_size(Video_Codec codec, std::span<const std::byte> access_unit);

}  // namespace zav_shm::media
