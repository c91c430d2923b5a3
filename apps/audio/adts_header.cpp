// SPDX-License-Identifier: Apache-2.0
#include "apps/audio/adts_header.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace zav_shm::audio {

namespace {

constexpr std::uint32_t block_samples = 1024;

std::uint32_t value(std::byte byte) { return std::to_integer<std::uint32_t>(byte); }

}  // namespace

// Bits: sync 12, version 1, layer 2, no checksum 1 | profile 2, rate 4, private 1, channels 3,
// original 1, home 1 | copyright 2, length 13, fullness 11, blocks 2.
std::optional<Adts_Header> read_adts_header(std::span<const std::byte> bytes) {
    constexpr std::array<std::uint32_t, 13> rates{96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                  22050, 16000, 12000, 11025, 8000,  7350};
    constexpr std::size_t checksum_bytes = 2;
    if (bytes.size() < adts_header_bytes || value(bytes[0]) != 0xFF ||
        (value(bytes[1]) & 0xF6U) != 0xF0) {
        return std::nullopt;
    }
    const std::uint32_t rate = value(bytes[2]) >> 2U & 0xFU;
    const std::uint32_t channels = (value(bytes[2]) & 1U) << 2U | value(bytes[3]) >> 6U;
    const std::uint32_t length =
        (value(bytes[3]) & 3U) << 11U | value(bytes[4]) << 3U | value(bytes[5]) >> 5U;
    const std::size_t head = adts_header_bytes + ((value(bytes[1]) & 1U) != 0 ? 0 : checksum_bytes);
    if (rate >= rates.size() || length <= head) {
        return std::nullopt;
    }
    constexpr std::uint32_t seven_is_eight = 7;
    return Adts_Header{.frame_bytes = length,
                       .samples = block_samples * ((value(bytes[6]) & 3U) + 1),
                       .format = {rates.at(rate), channels == seven_is_eight ? 8 : channels},
                       .fixed = value(bytes[0]) << 24U | value(bytes[1]) << 16U |
                                value(bytes[2]) << 8U | (value(bytes[3]) & 0xF0U)};
}

std::optional<std::size_t> id3_tag_bytes(std::span<const std::byte> beginning) {
    constexpr std::string_view mark = "ID3";
    constexpr std::size_t header_bytes = 10;
    const std::size_t compared = std::min(beginning.size(), mark.size());
    for (std::size_t i = 0; i < compared; ++i) {
        if (value(beginning[i]) != static_cast<unsigned char>(mark[i])) {
            return 0;
        }
    }
    if (beginning.size() < header_bytes) {
        return std::nullopt;
    }
    const bool has_footer = (value(beginning[5]) & 0x10U) != 0;
    std::size_t length = 0;
    for (const std::byte byte : beginning.subspan(6, 4)) {
        length = length << 7U | (value(byte) & 0x7FU);
    }
    return header_bytes + length + (has_footer ? header_bytes : 0);
}

bool holds_adts(std::span<const std::byte> bytes, bool at_end) {
    constexpr int headers_wanted = 3;
    for (std::size_t begin = 0; begin + adts_header_bytes <= bytes.size(); ++begin) {
        const auto first = read_adts_header(bytes.subspan(begin));
        int headers = 0;
        std::size_t at = begin;
        for (auto header = first; header && header->is_of_stream(*first);
             header = read_adts_header(bytes.subspan(at))) {
            at += header->frame_bytes;
            ++headers;
            if (headers == headers_wanted || (at_end && at == bytes.size())) {
                return true;
            }
            if (at > bytes.size()) {
                break;
            }
        }
        if (at_end && headers == headers_wanted - 1) {
            return true;  // one whole frame, and another one that is cut
        }
    }
    return false;
}

}  // namespace zav_shm::audio
