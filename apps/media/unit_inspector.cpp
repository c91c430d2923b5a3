// SPDX-License-Identifier: Apache-2.0
#include "apps/media/unit_inspector.h"

#include <algorithm>

#include "apps/media/bit_reader.h"
#include "apps/media/nal_types.h"

namespace zav_shm::media {

namespace {

// The fields of a slice header up to the field flag have 20 bytes at most.
constexpr std::size_t slice_header_bytes = 32;

constexpr std::uint32_t picture_set_id_max = 255;
constexpr std::uint32_t sequence_id_max = 31;

// Slice types come twice: 5 to 9 promise that all slices of the picture have this type.
constexpr std::uint32_t slice_types = 5;
constexpr std::uint32_t slice_type_i = 2;
constexpr std::uint32_t slice_type_si = 4;

constexpr std::size_t recovery_point = 6;  // the message's type, the same in both standards

// A type or a length of a message: bytes of 255 that are added up, and one below that.
std::size_t message_number(std::span<const std::byte>& rest) {
    std::size_t number = 0;
    while (!rest.empty()) {
        const auto byte = std::to_integer<std::size_t>(rest.front());
        rest = rest.subspan(1);
        number += byte;
        if (byte != 0xFF) {
            break;
        }
    }
    return number;
}

/// @param messages  the NAL unit behind its header.
bool has_recovery_point(std::span<const std::byte> messages) {
    constexpr std::size_t trailing_bytes = 1;
    const auto payload = without_escapes(messages, messages.size());
    std::span<const std::byte> rest(payload);
    while (rest.size() > trailing_bytes) {
        const std::size_t type = message_number(rest);
        const std::size_t length = message_number(rest);
        if (type == recovery_point && length > 0 && length <= rest.size()) {
            return true;
        }
        rest = rest.subspan(std::min(length, rest.size()));
    }
    return false;
}

}  // namespace

void Unit_Inspector::inspect(Video_Codec codec, std::span<const std::byte> nal_unit) {
    constexpr std::size_t h265_header_bytes = 2;
    constexpr std::byte forbidden_bit{0x80};
    if (nal_unit.size() <= h265_header_bytes || (nal_unit[0] & forbidden_bit) != std::byte{0}) {
        return;
    }
    if (codec == Video_Codec::h264) {
        inspect_h264(nal_unit);
        return;
    }
    const unsigned type = nal_type(codec, nal_unit[0]);
    has_sequence_set_ |= type == h265::sps;
    if (type == h265::prefix_sei) {
        has_message_ |= has_recovery_point(nal_unit.subspan(h265_header_bytes));
    }
}

// An access unit without a picture, at the end of a stream, counts as one; nobody is the worse for
// it.
Unit_Findings Unit_Inspector::conclude(bool is_entry) {
    pictures_ = is_entry || has_message_ ? 0 : std::min(pictures_ + 1, patience_pictures);
    const bool is_intra = has_intra_slice_ && !has_other_slice_;
    const bool has_sign = is_intra || has_sequence_set_;
    const Unit_Findings findings{
        .is_recovery_point = has_message_ || (has_sign && pictures_ == patience_pictures),
        .is_field = is_field_};
    has_message_ = has_sequence_set_ = false;
    has_intra_slice_ = has_other_slice_ = is_field_ = false;
    return findings;
}

void Unit_Inspector::inspect_h264(std::span<const std::byte> nal_unit) {
    switch (nal_type(Video_Codec::h264, nal_unit[0])) {
        case h264::sps:
            has_sequence_set_ = true;
            if (const auto sequence = read_h264_sequence(nal_unit)) {
                sequences_.at(sequence->id) = sequence;
            }
            break;
        case h264::pps:
            learn_h264_picture_set(nal_unit);
            break;
        case h264::sei:
            has_message_ |= has_recovery_point(nal_unit.subspan(1));
            break;
        case h264::slice:
        case h264::slice_partition_a:
        case h264::slice_idr:
            inspect_h264_slice(nal_unit);
            break;
        default:
            break;
    }
}

void Unit_Inspector::learn_h264_picture_set(std::span<const std::byte> nal_unit) {
    const auto payload = without_escapes(nal_unit, slice_header_bytes);
    Bit_Reader reader(payload);
    reader.skip(8);  // the NAL unit's header
    const std::uint32_t id = reader.unsigned_golomb();
    const std::uint32_t sequence_id = reader.unsigned_golomb();
    if (!reader.failed() && id <= picture_set_id_max && sequence_id <= sequence_id_max) {
        sequence_of_picture_set_.at(id) = static_cast<std::uint8_t>(sequence_id);
    }
}

void Unit_Inspector::inspect_h264_slice(std::span<const std::byte> nal_unit) {
    const auto payload = without_escapes(nal_unit, slice_header_bytes);
    Bit_Reader reader(payload);
    reader.skip(8);            // the NAL unit's header
    reader.unsigned_golomb();  // first_mb_in_slice
    const std::uint32_t type = reader.unsigned_golomb() % slice_types;
    const std::uint32_t picture_set = reader.unsigned_golomb();
    const bool is_intra = !reader.failed() && (type == slice_type_i || type == slice_type_si);
    (is_intra ? has_intra_slice_ : has_other_slice_) = true;
    if (reader.failed() || picture_set > picture_set_id_max) {
        return;
    }
    const auto& sequence = sequences_.at(sequence_of_picture_set_.at(picture_set));
    if (sequence && !sequence->has_only_frames) {
        reader.skip(sequence->has_separate_planes ? 2 : 0);
        reader.skip(sequence->frame_number_bits);
        is_field_ |= reader.flag() && !reader.failed();
    }
}

}  // namespace zav_shm::media
