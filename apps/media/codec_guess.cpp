// SPDX-License-Identifier: Apache-2.0
#include "apps/media/codec_guess.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "apps/media/nal_scan.h"
#include "apps/media/nal_types.h"

namespace zav_shm::media {

namespace {

unsigned value(std::byte byte) { return std::to_integer<unsigned>(byte); }

// In H.265 a parameter set or delimiter of layer 0 has exactly these two bytes. In H.264 the first
// of them would be a NAL unit that nobody writes with the reference bits that it has here.
bool is_h265(std::span<const std::byte> nal) {
    return value(nal[0]) >= 0x40 && value(nal[0]) <= 0x46 && value(nal[0]) % 2 == 0 &&
           value(nal[1]) == 1;
}

bool is_profile(unsigned profile) {
    constexpr std::array<unsigned, 12> known{66, 77, 88, 100, 110, 122, 244, 44, 83, 86, 118, 128};
    return std::ranges::find(known, profile) != known.end();
}

bool is_h264(std::span<const std::byte> nal) {
    const unsigned reference = value(nal[0]) >> 5;
    const unsigned type = nal_type(Video_Codec::h264, nal[0]);
    if (type == h264::sps) {
        return reference >= 1 && reference <= 3 && is_profile(value(nal[1]));
    }
    // primary_pic_type in three bits, then the bit that ends the payload.
    return type == h264::delimiter && reference == 0 && (value(nal[1]) & 0x1FU) == 0x10;
}

bool has_at(std::span<const std::byte> bytes, std::size_t offset, std::string_view text) {
    return bytes.size() >= offset + text.size() &&
           std::memcmp(bytes.data() + offset, text.data(), text.size()) == 0;
}

}  // namespace

std::optional<Video_Codec> guess_codec(std::span<const std::byte> beginning) {
    for (Nal_Scan scan(beginning); scan.next();) {
        const auto nal = scan.nal_unit();
        if (nal.size() < 2) {
            continue;
        }
        if (is_h265(nal)) {
            return Video_Codec::h265;
        }
        if (is_h264(nal)) {
            return Video_Codec::h264;
        }
    }
    return std::nullopt;
}

// The VPS is what H.264 calls an unspecified NAL unit. The SPS of H.264 would be of a layer above
// 31, which no encoder of H.265 makes.
std::optional<bool> changes_codec(Video_Codec codec, std::span<const std::byte> head) {
    constexpr std::byte vps{h265::vps << 1U};
    const bool may_change =
        !head.empty() &&
        (codec == Video_Codec::h264
             ? head[0] == vps
             : head[0] < std::byte{0x80} && nal_type(Video_Codec::h264, head[0]) == h264::sps);
    if (!may_change) {
        return false;
    }
    if (head.size() < 2) {
        return std::nullopt;
    }
    return codec == Video_Codec::h264 ? is_h265(head) : is_h264(head);
}

const char* guess_container(std::span<const std::byte> beginning) {
    constexpr std::size_t ts_packet_bytes = 188;
    if (has_at(beginning, 4, "ftyp") || has_at(beginning, 4, "moov")) {
        return "MP4";
    }
    if (has_at(beginning, 0, "\x1A\x45\xDF\xA3")) {
        return "Matroska";
    }
    if (has_at(beginning, 0, "RIFF")) {
        return "AVI";
    }
    if (has_at(beginning, 0, "G") && has_at(beginning, ts_packet_bytes, "G")) {
        return "MPEG transport stream";
    }
    return nullptr;
}

}  // namespace zav_shm::media
