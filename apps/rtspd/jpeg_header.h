// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace zav_shm::rtspd {

/// What RTP has to know of a picture.
struct Jpeg_Header {
    std::uint32_t width = 0;   // pixels
    std::uint32_t height = 0;  // pixels
};

/// Walks over what stands before the picture's data.
///
/// @return nothing unless these are a baseline JPEG's segments, whole up to the data
std::optional<Jpeg_Header> read_jpeg_header(std::span<const std::byte> picture);

}  // namespace zav_shm::rtspd
