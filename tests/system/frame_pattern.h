// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "stream/frame_slot.h"

// Frames whose every byte follows from their number, so that a consumer can check each one
// without knowing what was sent.
namespace frame_pattern {

inline constexpr std::uint32_t page_size = 65536;

struct Stamp {
    std::uint64_t number;
    std::int64_t publish_ns;  // CLOCK_MONOTONIC when the write began
    std::uint8_t period_ms;   // time between two frames, 0 at full rate
    bool last;
};

/// 0, 1, page size - 1, page size, and pseudo-random lengths between.
std::uint32_t payload_length(std::uint64_t number);

/// Fills header and payload of frame `number`; `buffer` must have room for the page size.
void fill(STREAM_FRAME_FORMAT& frame, std::vector<unsigned char>& buffer, const Stamp& stamp);

Stamp stamp_of(const STREAM_FRAME_FORMAT& frame);

/// True when every byte of header and payload is that of the frame's number.
bool is_right(const STREAM_FRAME_FORMAT& frame);

std::int64_t now_ns();

}  // namespace frame_pattern
