// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zav_shm::audio {

/// The first packet of an Opus stream in Ogg (RFC 7845, 5.1), as far as mono and stereo need it.
struct Opus_Head {
    std::uint32_t channels = 0;
    std::uint32_t pre_skip = 0;  // samples at 48 kHz at the beginning that are not to be heard
    std::uint32_t input_rate = 0;
    std::int32_t gain = 0;      // to be applied after decoding, in 1/256 dB
    std::uint32_t mapping = 0;  // family; 0 is mono or stereo in one stream

    /// A frame's header tells a decoder all that it needs: no streams within the packets.
    bool is_mono_or_stereo() const { return mapping == 0 && (channels == 1 || channels == 2); }
};

/// @return nothing when the packet is none, or of a later version of the format.
std::optional<Opus_Head> read_opus_head(std::span<const std::byte> packet);

/// The packet, of mono or stereo without gain.
std::vector<std::byte> write_opus_head(const Opus_Head& head);

/// The second packet: comments, of which there are none.
std::vector<std::byte> write_opus_tags();

/// Whether a page's content is the beginning of the comments.
bool is_opus_tags(std::span<const std::byte> bytes);

/// Tells whether an Ogg stream with Opus begins in these bytes.
bool holds_ogg_opus(std::span<const std::byte> bytes);

/// Whether a page of Ogg stands at the beginning.
bool begins_as_ogg(std::span<const std::byte> bytes);

}  // namespace zav_shm::audio
