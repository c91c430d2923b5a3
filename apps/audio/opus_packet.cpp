// SPDX-License-Identifier: Apache-2.0
#include "apps/audio/opus_packet.h"

#include <array>

namespace zav_shm::audio {

namespace {

// Of the first byte's configuration: four sizes for each of SILK's three bandwidths, two for each
// of the two hybrid ones, four for each of CELT's four.
std::uint32_t frame_samples(unsigned configuration) {
    constexpr std::array<std::uint32_t, 4> silk{480, 960, 1920, 2880};
    constexpr std::array<std::uint32_t, 2> hybrid{480, 960};
    constexpr std::array<std::uint32_t, 4> celt{120, 240, 480, 960};
    constexpr unsigned hybrid_first = 12;
    constexpr unsigned celt_first = 16;
    if (configuration < hybrid_first) {
        return silk.at(configuration % silk.size());
    }
    return configuration < celt_first ? hybrid.at(configuration % hybrid.size())
                                      : celt.at(configuration % celt.size());
}

}  // namespace

std::optional<std::uint32_t> opus_packet_samples(std::span<const std::byte> packet) {
    constexpr std::uint32_t samples_max = opus_rate / 1000 * 120;
    if (packet.empty()) {
        return std::nullopt;
    }
    const auto first = std::to_integer<unsigned>(packet[0]);
    std::uint32_t frames = 0;
    switch (first & 3U) {
        case 0:
            frames = 1;
            break;
        case 1:
        case 2:
            frames = 2;
            break;
        default:
            frames = packet.size() < 2 ? 0 : std::to_integer<std::uint32_t>(packet[1]) & 0x3FU;
            break;
    }
    const std::uint32_t samples = frames * frame_samples(first >> 3U);
    return samples == 0 || samples > samples_max ? std::nullopt : std::optional(samples);
}

bool opus_packet_is_stereo(std::span<const std::byte> packet) {
    return (std::to_integer<unsigned>(packet[0]) & 4U) != 0;
}

}  // namespace zav_shm::audio
