// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "apps/audio/audio_splitter.h"

namespace zav_shm::audio {

inline constexpr std::size_t adts_header_bytes = 7;  // without the checksum
inline constexpr std::size_t adts_frame_bytes_max = 8191;

/// The header in front of each AAC frame of a file or pipe (ISO/IEC 13818-7, 6.2).
struct Adts_Header {
    std::size_t frame_bytes = 0;  // with the header
    std::uint32_t samples = 0;    // 1024 for each of up to four blocks
    Audio_Format format;
    std::uint32_t fixed = 0;  // the bits that stay the same throughout a stream

    bool is_of_stream(const Adts_Header& other) const { return fixed == other.fixed; }
};

/// @return nothing when the bytes are none, or fewer than adts_header_bytes.
std::optional<Adts_Header> read_adts_header(std::span<const std::byte> bytes);

/// The length of the ID3v2 tag that stands in front of some files.
///
/// @return 0 when there is none; nothing when more bytes are needed, never with 10 or more.
std::optional<std::size_t> id3_tag_bytes(std::span<const std::byte> beginning);

/// Tells whether a stream of ADTS frames begins somewhere in these bytes: three headers in a row,
/// each where the one before it says; or fewer that reach to the end of the input.
bool holds_adts(std::span<const std::byte> bytes, bool at_end);

}  // namespace zav_shm::audio
