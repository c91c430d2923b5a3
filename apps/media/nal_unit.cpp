// SPDX-License-Identifier: Apache-2.0
#include "apps/media/nal_unit.h"

#include "apps/media/nal_types.h"

namespace zav_shm::media {

namespace {

// ---- H.264 ----

// Partitions B and C, and the slices of further layers, never begin a picture.
bool has_first_macroblock(unsigned type) {
    return type == h264::slice || type == h264::slice_partition_a || type == h264::slice_idr;
}

// first_mb_in_slice comes first in a slice header, as an Exp-Golomb number: 0 is a single 1 bit.
bool first_bit(std::byte byte) { return std::to_integer<unsigned>(byte) >= 0x80; }

std::optional<Nal_Meaning> h264_meaning(std::span<const std::byte> head) {
    const unsigned type = nal_type(Video_Codec::h264, head[0]);
    Nal_Meaning meaning;
    if (has_first_macroblock(type)) {
        if (head.size() < 2) {
            return std::nullopt;
        }
        meaning.place = first_bit(head[1]) ? Nal_Place::opens_picture : Nal_Place::continues;
    } else if (type == h264::prefix) {
        meaning.place = Nal_Place::precedes;
    } else if ((type >= h264::sei && type <= h264::delimiter) ||
               (type >= h264::subset_sps && type <= h264::reserved_before_picture_last)) {
        meaning.place = Nal_Place::opens;
    }
    meaning.is_slice = type >= h264::slice && type <= h264::slice_idr;
    meaning.is_key = type == h264::slice_idr;
    meaning.is_configuration = type == h264::sps || type == h264::pps || type == h264::subset_sps;
    return meaning;
}

// ---- H.265 ----

bool opens_h265(unsigned type) {
    return (type >= h265::vps && type <= h265::delimiter) || type == h265::prefix_sei ||
           (type >= h265::reserved_before_picture_first &&
            type <= h265::reserved_before_picture_last) ||
           (type >= h265::unspecified_before_picture_first &&
            type <= h265::unspecified_before_picture_last);
}

unsigned layer_of(std::byte first, std::byte second) {
    return (std::to_integer<unsigned>(first) & 1U) << 5 | std::to_integer<unsigned>(second) >> 3;
}

// nuh_temporal_id_plus1 is never 0.
bool has_temporal_layer(std::byte second) { return (std::to_integer<unsigned>(second) & 7U) != 0; }

std::optional<Nal_Meaning> h265_meaning(std::span<const std::byte> head) {
    if (head.size() < 2) {
        return std::nullopt;
    }
    const unsigned type = nal_type(Video_Codec::h265, head[0]);
    if (!has_temporal_layer(head[1])) {
        return Nal_Meaning{};  // no NAL unit, zero bytes behind a start code for instance
    }
    const bool is_slice = type <= h265::slice_last;
    if (is_slice && head.size() < 3) {
        return std::nullopt;
    }
    Nal_Meaning meaning;
    meaning.is_slice = is_slice;
    meaning.is_configuration = type >= h265::vps && type <= h265::pps;
    if (layer_of(head[0], head[1]) != 0) {
        return meaning;  // a further layer of the same access unit
    }
    meaning.is_key = type >= h265::idr_first && type <= h265::idr_last;
    meaning.is_recovery_point =
        !meaning.is_key && type >= h265::irap_first && type <= h265::irap_last;
    if (is_slice) {
        // first_slice_segment_in_pic_flag is the first bit after the two bytes of the header.
        meaning.place = first_bit(head[2]) ? Nal_Place::opens_picture : Nal_Place::continues;
    } else if (opens_h265(type)) {
        meaning.place = Nal_Place::opens;
    }
    return meaning;
}

}  // namespace

const char* name_of(Video_Codec codec) { return codec == Video_Codec::h264 ? "H.264" : "H.265"; }

unsigned nal_type(Video_Codec codec, std::byte first) {
    const auto bits = std::to_integer<unsigned>(first);
    return codec == Video_Codec::h264 ? bits & 0x1FU : bits >> 1 & 0x3FU;
}

std::optional<Nal_Meaning> meaning_of(Video_Codec codec, std::span<const std::byte> head) {
    if (head.empty()) {
        return std::nullopt;
    }
    if (first_bit(head[0])) {
        return Nal_Meaning{};  // forbidden_zero_bit: no NAL unit
    }
    return codec == Video_Codec::h264 ? h264_meaning(head) : h265_meaning(head);
}

}  // namespace zav_shm::media
