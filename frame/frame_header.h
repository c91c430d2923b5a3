// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Frame header, version 1: the 128 bytes in front of every payload. Device byte order.
//
//   off size field           unit    rule
//     0    4 magic           -       "ZAVF"; anything else is a foreign producer's header
//     4    2 version         -       1
//     6    2 flags           -       1 key frame, 2 carries codec configuration,
//                                    4 discontinuity, 8 end of stream, 16 recovery point
//     8    8 sequence        -       from 1, one more per frame offered, delivered or not
//    16    4 payload_length  bytes   0 .. page size; the slot's own field
//    20    4 codec           -       four characters, "H264"
//    24    8 epoch           -       random per publisher instance, never 0
//    32    8 publish_ns      ns      CLOCK_MONOTONIC when the write began
//    40    8 pts_ns          ns      presentation time of the stream
//    48    8 utc_ns          ns      wall clock at capture; 0 unknown
//    56    4 width           pixels  video; 0 otherwise
//    60    4 height          pixels  video; 0 otherwise
//    64    4 rate_num        -       frames or samples per second, numerator
//    68    4 rate_den        -       denominator
//    72    4 channels        -       audio; 0 otherwise
//    76    4 duration_us     us      0 unknown
//    80   44 reserved        -       zero when written, ignored when read
//   124    4 commit          -       0 while the slot is being filled, else the low 32 bits of
//                                    sequence (0 becomes 1)
//
// Writer: commit = 0, fence, header and payload, commit = commit_of(sequence) with release.
// Reader: load epoch, fence, load commit with acquire, copy, fence, load commit with acquire, then
// sequence and epoch again. If one of them differs from the copy, or commit was 0, the copy is
// torn: it is not handed out.
struct ZAV_SHM_Frame_Header {
    std::uint32_t magic;
    std::uint16_t version;
    std::uint16_t flags;
    std::uint64_t sequence;
    std::uint32_t payload_length;
    std::uint32_t codec;
    std::uint64_t epoch;
    std::int64_t publish_ns;
    std::int64_t pts_ns;
    std::int64_t utc_ns;
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t rate_num;
    std::uint32_t rate_den;
    std::uint32_t channels;
    std::uint32_t duration_us;
    std::uint8_t reserved[44];
    std::uint32_t commit;
};

// Natural offsets are the same on 32- and 64-bit targets, and those of i386, which aligns 64-bit
// fields to 4 bytes only, agree.
static_assert(sizeof(ZAV_SHM_Frame_Header) == 128);
static_assert(offsetof(ZAV_SHM_Frame_Header, flags) == 6);
static_assert(offsetof(ZAV_SHM_Frame_Header, sequence) == 8);
static_assert(offsetof(ZAV_SHM_Frame_Header, payload_length) == 16);
static_assert(offsetof(ZAV_SHM_Frame_Header, codec) == 20);
static_assert(offsetof(ZAV_SHM_Frame_Header, epoch) == 24);
static_assert(offsetof(ZAV_SHM_Frame_Header, publish_ns) == 32);
static_assert(offsetof(ZAV_SHM_Frame_Header, utc_ns) == 48);
static_assert(offsetof(ZAV_SHM_Frame_Header, width) == 56);
static_assert(offsetof(ZAV_SHM_Frame_Header, duration_us) == 76);
static_assert(offsetof(ZAV_SHM_Frame_Header, commit) == 124);

namespace zav_shm {

inline constexpr std::uint32_t frame_magic = 0x4656415AU;  // "ZAVF" in memory on the targets
inline constexpr std::uint16_t frame_version = 1;

namespace frame_flag {
inline constexpr std::uint16_t key_frame = 1;
inline constexpr std::uint16_t codec_configuration = 2;
inline constexpr std::uint16_t discontinuity = 4;
inline constexpr std::uint16_t end_of_stream = 8;
inline constexpr std::uint16_t recovery_point = 16;  // no IDR, and still a decoder may begin here
}  // namespace frame_flag

/// The codec field of four characters; a shorter name is filled up with blanks.
///
///   four_characters("AAC")
constexpr std::uint32_t four_characters(const char* name) {
    std::uint32_t code = 0;
    for (unsigned i = 0; i < 4; ++i) {
        const char character = *name != '\0' ? *name++ : ' ';
        code |= static_cast<std::uint32_t>(static_cast<unsigned char>(character)) << (8 * i);
    }
    return code;
}

namespace codec {
inline constexpr std::uint32_t h264 = four_characters("H264");
inline constexpr std::uint32_t h265 = four_characters("H265");
inline constexpr std::uint32_t mjpeg = four_characters("MJPG");
inline constexpr std::uint32_t aac = four_characters("AAC");
inline constexpr std::uint32_t opus = four_characters("OPUS");
inline constexpr std::uint32_t g711 = four_characters("G711");  // does not say which law
inline constexpr std::uint32_t pcma = four_characters("PCMA");  // G.711 A-law
inline constexpr std::uint32_t pcmu = four_characters("PCMU");  // G.711 mu-law
inline constexpr std::uint32_t raw = four_characters("RAW");    // says nothing of the bytes

// Raw pictures, rows of 4-byte multiples, planes one behind the other.
inline constexpr std::uint32_t i420 = four_characters("I420");
inline constexpr std::uint32_t nv12 = four_characters("NV12");
inline constexpr std::uint32_t yuy2 = four_characters("YUY2");
inline constexpr std::uint32_t uyvy = four_characters("UYVY");
inline constexpr std::uint32_t gray8 = four_characters("GRY8");
inline constexpr std::uint32_t rgb = four_characters("RGB");
inline constexpr std::uint32_t bgrx = four_characters("BGRX");
}  // namespace codec

/// True for a header that a publisher has written; producers of the fixed interface write other
/// bytes there, or none.
inline bool is_ours(const ZAV_SHM_Frame_Header& header) {
    return header.magic == frame_magic && header.version == frame_version;
}

/// What the commit field holds of a complete frame.
constexpr std::uint32_t commit_of(std::uint64_t sequence) {
    const auto low = static_cast<std::uint32_t>(sequence);
    return low != 0 ? low : 1;
}

/// The four characters as text, without the blanks at the end; what cannot be printed is "?".
std::string codec_name(std::uint32_t codec);

}  // namespace zav_shm
