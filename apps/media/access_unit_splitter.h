// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "apps/media/nal_unit.h"
#include "apps/media/unit_inspector.h"

namespace zav_shm::media {

/// One access unit: a picture with all that belongs to it, start codes included.
struct Access_Unit {
    std::span<const std::byte> bytes;  // valid during the call; its first part only when too long
    std::uint64_t size_bytes = 0;      // of the whole, also when it is too long
    bool too_long = false;             // beyond the limit: `bytes` is one byte longer than that
    bool has_picture = false;          // false only of what is left at the end of input
    bool is_key = false;               // an IDR picture
    bool is_recovery_point = false;    // none, and still a decoder may begin here
    bool is_field = false;             // half a frame: see Unit_Findings
    bool has_configuration = false;    // carries VPS, SPS or PPS
    bool is_last = false;              // handed out by finish()
    Video_Codec codec = Video_Codec::h264;
};

/// Divides an H.264 or H.265 elementary stream with start codes (Annex B) into access units.
///
///   Access_Unit_Splitter splitter(Video_Codec::h264, limit, [](const Access_Unit& unit) { ... });
///   while (... read ...) splitter.feed(block);
///   splitter.finish();
///
/// Every byte goes out once and in order: the access units put together are the input, including
/// what precedes the first start code (it goes with the first access unit) and zero bytes between
/// NAL units (they go with the one before). How the input is cut into blocks makes no difference.
///
/// A stream that changes to the other codec is divided by that one's rules from the access unit on
/// whose first parameter set shows it.
///
/// An access unit is handed out as soon as the head of the first NAL unit behind it is there, that
/// is two to seven bytes into the next one.
///
/// Memory   up to twice the limit, and some kilobytes, whatever the input.
/// Threads  one. The receiver of access units may not call the splitter.
class Access_Unit_Splitter {
public:
    using Receiver = std::function<void(const Access_Unit&)>;

    /// @param limit_bytes  the longest access unit that is handed out whole.
    Access_Unit_Splitter(Video_Codec codec, std::size_t limit_bytes, Receiver receiver);

    void feed(std::span<const std::byte> block);

    /// Hands out what is left, as a last access unit, and is ready for another stream. Without a
    /// start code in the whole input nothing is handed out.
    void finish();

    /// Whether a start code was seen since the beginning or the last finish().
    bool found_start_code() const { return found_start_code_; }

private:
    void feed_byte(std::byte byte);
    void begin_nal_unit();
    void read_head(std::byte byte);
    void end_nal_unit();
    void place(const Nal_Meaning& meaning);
    void settle();
    void keep(std::span<const std::byte> bytes);
    void hand_out(bool is_last);

    const Video_Codec first_codec_;
    Video_Codec codec_;       // of the present NAL unit
    Video_Codec unit_codec_;  // of the present access unit
    const std::size_t limit_bytes_;
    const Receiver receiver_;

    std::vector<std::byte> unit_;  // the present access unit, up to one byte beyond the limit
    std::vector<std::byte> tail_;  // bytes that may still belong to the next one
    Access_Unit facts_;            // of the present access unit, without `bytes`
    std::size_t zeros_ = 0;        // zero bytes in a row at the end of the input so far, up to 3
    bool found_start_code_ = false;

    std::array<std::byte, nal_head_bytes_max> head_{};
    std::size_t head_bytes_ = 0;
    std::optional<std::uint64_t>
        nal_begin_;  // of the present NAL unit in the access unit, if known
    Unit_Inspector inspector_;
    bool in_head_ = false;       // the NAL unit's meaning is not known yet
    bool holds_prefix_ = false;  // `tail_` begins with a NAL unit that precedes a slice
};

}  // namespace zav_shm::media
