// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace zav_shm::bench::compare {

// What is written into every frame and checked by every consumer, the same for all systems:
//
//   off 0      8  publish_ns  CLOCK_MONOTONIC when the producer began with this frame
//       8      8  sequence    from 1; 0 in a warm-up frame
//       1024 n 8  sequence    n = 1, 2, ...: four words in each page
//       last   8  sequence
//
// So every page of the payload is touched on both sides, and a frame made of two shows. What an
// application does with the bytes comes on top of it, in each system alike.
struct Frame_Stamp {
    std::int64_t publish_ns = 0;
    std::uint64_t sequence = 0;
};

inline constexpr std::size_t pattern_step_bytes = 1024;
inline constexpr std::size_t least_payload_bytes = sizeof(Frame_Stamp) + sizeof(std::uint64_t);

/// Calls `visit` with the offset of each word that repeats the sequence.
template <typename Visit>
void for_each_pattern_word(std::size_t payload_bytes, Visit visit) {
    const std::size_t last = payload_bytes - sizeof(std::uint64_t);
    for (std::size_t offset = pattern_step_bytes; offset < last; offset += pattern_step_bytes) {
        visit(offset);
    }
    visit(last);
}

/// @param payload  at least least_payload_bytes
inline void write_pattern(std::span<std::byte> payload, const Frame_Stamp& stamp) {
    std::memcpy(payload.data(), &stamp, sizeof stamp);
    for_each_pattern_word(payload.size(), [&](std::size_t offset) {
        std::memcpy(&payload[offset], &stamp.sequence, sizeof stamp.sequence);
    });
}

/// @return the stamp; nothing when the payload has not the expected length or is of two frames.
inline std::optional<Frame_Stamp> read_pattern(std::span<const std::byte> payload,
                                               std::size_t expected_bytes) {
    if (payload.size() != expected_bytes) {
        return {};
    }
    Frame_Stamp stamp;
    std::memcpy(&stamp, payload.data(), sizeof stamp);
    std::uint64_t difference = 0;
    for_each_pattern_word(payload.size(), [&](std::size_t offset) {
        std::uint64_t word = 0;
        std::memcpy(&word, &payload[offset], sizeof word);
        difference |= word ^ stamp.sequence;
    });
    return difference == 0 ? std::optional(stamp) : std::nullopt;
}

}  // namespace zav_shm::bench::compare
