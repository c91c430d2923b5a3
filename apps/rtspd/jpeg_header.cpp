// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/jpeg_header.h"

namespace zav_shm::rtspd {

namespace {

// The second bytes of markers, behind 255.
constexpr unsigned start_of_image = 0xD8;
constexpr unsigned start_of_frame = 0xC0;  // baseline; RTP has no other
constexpr unsigned start_of_scan = 0xDA;

constexpr std::size_t marker_bytes = 2;
constexpr std::size_t frame_bytes_min = 17;  // with three components
constexpr unsigned components = 3;

unsigned at(std::span<const std::byte> bytes, std::size_t index) {
    return std::to_integer<unsigned>(bytes[index]);
}

unsigned two_at(std::span<const std::byte> bytes, std::size_t index) {
    return at(bytes, index) << 8U | at(bytes, index + 1);
}

}  // namespace

std::optional<Jpeg_Header> read_jpeg_header(std::span<const std::byte> picture) {
    std::optional<Jpeg_Header> header;
    if (picture.size() < marker_bytes || two_at(picture, 0) != (0xFF00U | start_of_image)) {
        return std::nullopt;
    }
    for (auto rest = picture.subspan(marker_bytes); rest.size() >= marker_bytes + 2;) {
        const unsigned marker = at(rest, 1);
        const std::size_t length = two_at(rest, marker_bytes);
        if (at(rest, 0) != 0xFF || length < 2 || length > rest.size() - marker_bytes) {
            return std::nullopt;
        }
        const auto segment = rest.subspan(marker_bytes, length);
        if (marker == start_of_frame && length >= frame_bytes_min && at(segment, 7) == components) {
            header = Jpeg_Header{two_at(segment, 5), two_at(segment, 3)};
        }
        if (marker == start_of_scan) {
            return header && header->width != 0 && header->height != 0 ? header : std::nullopt;
        }
        rest = rest.subspan(marker_bytes + length);
    }
    return std::nullopt;
}

}  // namespace zav_shm::rtspd
