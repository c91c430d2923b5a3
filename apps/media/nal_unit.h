// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace zav_shm::media {

enum class Video_Codec { h264, h265 };

/// "H.264" or "H.265".
const char* name_of(Video_Codec codec);

constexpr Video_Codec other_codec(Video_Codec codec) {
    return codec == Video_Codec::h264 ? Video_Codec::h265 : Video_Codec::h264;
}

/// What one NAL unit means for the division of a stream into access units.
enum class Nal_Place {
    opens,          // begins the next access unit when the present one has a picture
    opens_picture,  // the first slice of a picture: begins it likewise
    precedes,       // belongs to the slice that follows, wherever that goes
    continues       // belongs to the present access unit
};

struct Nal_Meaning {
    Nal_Place place = Nal_Place::continues;
    bool is_slice = false;           // coded picture data
    bool is_key = false;             // a slice of an IDR picture
    bool is_recovery_point = false;  // a slice of another H.265 picture for decoders to begin at
    bool is_configuration = false;   // VPS, SPS or PPS
};

/// A NAL unit's meaning is in its first bytes, three at most.
inline constexpr std::size_t nal_head_bytes_max = 3;

/// Reads the meaning from the NAL unit's first bytes, which are given without the start code.
///
/// Slices that come in arbitrary order, redundant slices and auxiliary layers are not told apart:
/// a picture begins at the slice that holds its first macroblock or coding tree unit.
///
/// @return nothing when more bytes are needed, and always something from nal_head_bytes_max on.
std::optional<Nal_Meaning> meaning_of(Video_Codec codec, std::span<const std::byte> head);

/// The type field, of a NAL unit with at least one byte.
unsigned nal_type(Video_Codec codec, std::byte first);

}  // namespace zav_shm::media
