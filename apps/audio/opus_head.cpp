// SPDX-License-Identifier: Apache-2.0
#include "apps/audio/opus_head.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace zav_shm::audio {

namespace {

constexpr std::string_view page_mark = "OggS";
constexpr std::string_view head_mark = "OpusHead";
constexpr std::string_view tags_mark = "OpusTags";
constexpr std::size_t head_bytes = 19;
constexpr std::uint32_t version = 1;
constexpr std::uint32_t version_mask =
    0xF0;  // these bits change with what older readers cannot read

bool begins_with(std::span<const std::byte> bytes, std::string_view text) {
    return bytes.size() >= text.size() && std::memcmp(bytes.data(), text.data(), text.size()) == 0;
}

std::uint32_t little_endian(std::span<const std::byte> bytes) {
    std::uint32_t number = 0;
    for (std::size_t i = bytes.size(); i > 0; --i) {
        number = number << 8U | std::to_integer<std::uint32_t>(bytes[i - 1]);
    }
    return number;
}

class Packet_Writer {
public:
    Packet_Writer& text(std::string_view text) {
        const auto bytes = std::as_bytes(std::span(text));
        packet_.insert(packet_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    Packet_Writer& number(std::uint32_t value, unsigned bytes) {
        for (; bytes > 0; --bytes, value >>= 8U) {
            packet_.push_back(static_cast<std::byte>(value & 0xFFU));
        }
        return *this;
    }
    std::vector<std::byte> packet() { return std::move(packet_); }

private:
    std::vector<std::byte> packet_;
};

}  // namespace

// Bytes: mark 8, version 1, channels 1, pre-skip 2, input rate 4, gain 2, mapping family 1.
std::optional<Opus_Head> read_opus_head(std::span<const std::byte> packet) {
    if (packet.size() < head_bytes || !begins_with(packet, head_mark) ||
        (std::to_integer<std::uint32_t>(packet[8]) & version_mask) != 0) {
        return std::nullopt;
    }
    return Opus_Head{.channels = little_endian(packet.subspan(9, 1)),
                     .pre_skip = little_endian(packet.subspan(10, 2)),
                     .input_rate = little_endian(packet.subspan(12, 4)),
                     .gain = static_cast<std::int16_t>(little_endian(packet.subspan(16, 2))),
                     .mapping = little_endian(packet.subspan(18, 1))};
}

std::vector<std::byte> write_opus_head(const Opus_Head& head) {
    return Packet_Writer()
        .text(head_mark)
        .number(version, 1)
        .number(head.channels, 1)
        .number(head.pre_skip, 2)
        .number(head.input_rate, 4)
        .number(0, 2)
        .number(0, 1)
        .packet();
}

std::vector<std::byte> write_opus_tags() {
    constexpr std::string_view vendor = "zav_shm";
    return Packet_Writer()
        .text(tags_mark)
        .number(vendor.size(), 4)
        .text(vendor)
        .number(0, 4)
        .packet();
}

bool is_opus_tags(std::span<const std::byte> bytes) { return begins_with(bytes, tags_mark); }

bool holds_ogg_opus(std::span<const std::byte> bytes) {
    constexpr std::size_t page_head_bytes = 28;  // of a page with one short packet
    const auto mark = std::as_bytes(std::span(head_mark));
    for (auto rest = bytes;;) {
        const auto found = std::search(rest.begin(), rest.end(), mark.begin(), mark.end());
        const auto at = static_cast<std::size_t>(found - bytes.begin());
        if (found == rest.end()) {
            return false;
        }
        if (at >= page_head_bytes && begins_as_ogg(bytes.subspan(at - page_head_bytes))) {
            return true;
        }
        rest = bytes.subspan(at + 1);
    }
}

bool begins_as_ogg(std::span<const std::byte> bytes) { return begins_with(bytes, page_mark); }

}  // namespace zav_shm::audio
