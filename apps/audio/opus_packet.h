// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace zav_shm::audio {

/// Opus counts time in samples of this rate, whatever was fed to the encoder.
inline constexpr std::uint32_t opus_rate = 48000;

/// How long a packet lasts, in samples of each channel, by its first bytes (RFC 6716, 3.1 and 3.2).
///
/// @return nothing for an empty packet, one without frames, and one of more than 120 ms.
std::optional<std::uint32_t> opus_packet_samples(std::span<const std::byte> packet);

/// Whether the packet's first byte says stereo; of a packet with at least one byte.
bool opus_packet_is_stereo(std::span<const std::byte> packet);

}  // namespace zav_shm::audio
