// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "apps/media/nal_unit.h"
#include "apps/media/sequence_set.h"

namespace zav_shm::media {

/// What the NAL units of an access unit say beyond their first bytes.
struct Unit_Findings {
    bool is_recovery_point = false;  // a decoder may begin here
    bool is_field = false;  // an H.264 picture of every other line: two of them are a frame
};

/// Reads the NAL units of one access unit after the other.
///
/// A decoder may begin at a recovery point message. Encoders that write none may still have I
/// pictures, or repeat their parameter sets where a refresh of the picture begins. Both are weaker
/// signs, since pictures behind them may refer to those before. So they count only in a stream that
/// offers nothing better: once neither an IDR picture nor a recovery point has come for
/// `patience_pictures`, and until one comes.
///
/// Memory   a few kilobytes: the sequence parameter sets, and a copy of each message while it is
///          read.
/// Threads  one.
class Unit_Inspector {
public:
    static constexpr std::uint32_t patience_pictures = 300;  // 10 s at 30 frames per second

    /// A NAL unit of the present access unit, without its start code; it may be cut.
    void inspect(Video_Codec codec, std::span<const std::byte> nal_unit);

    /// Ends the present access unit; what is inspected from now on is the next one's.
    ///
    /// @param is_entry  it holds an IDR picture, or another one that decoders begin at by its type.
    Unit_Findings conclude(bool is_entry);

private:
    void inspect_h264(std::span<const std::byte> nal_unit);
    void learn_h264_picture_set(std::span<const std::byte> nal_unit);
    void inspect_h264_slice(std::span<const std::byte> nal_unit);

    std::array<std::optional<H264_Sequence>, 32> sequences_{};
    std::array<std::uint8_t, 256> sequence_of_picture_set_{};

    // Of the present access unit.
    bool has_message_ = false;  // of a recovery point
    bool has_sequence_set_ = false;
    bool has_intra_slice_ = false;
    bool has_other_slice_ = false;
    bool is_field_ = false;

    std::uint32_t pictures_ =
        0;  // since an IDR picture or a recovery point, up to patience_pictures
};

}  // namespace zav_shm::media
