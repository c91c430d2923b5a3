// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "ring/ring_writer.h"

// Bytes that tell which record they are of, and how long it is.

inline std::uint64_t pattern_begin(std::uint64_t number, std::size_t length) {
    return number * 0x9E3779B97F4A7C15U + length * 0xD1B54A32D192ED03U + 1;
}

inline std::byte pattern_next(std::uint64_t& state) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    return static_cast<std::byte>(state >> 56U);
}

inline void fill_with_pattern(std::span<std::byte> room, std::uint64_t number) {
    std::uint64_t state = pattern_begin(number, room.size());
    for (std::byte& byte : room) {
        byte = pattern_next(state);
    }
}

inline bool holds_pattern(std::span<const std::byte> bytes, std::uint64_t number) {
    std::uint64_t state = pattern_begin(number, bytes.size());
    for (const std::byte byte : bytes) {
        if (byte != pattern_next(state)) {
            return false;
        }
    }
    return true;
}

/// A length for a record, of all sizes up to `max`, in no order.
inline std::size_t length_of_record(std::uint64_t number, std::size_t max) {
    std::uint64_t state = pattern_begin(number, 7);
    pattern_next(state);
    return static_cast<std::size_t>((state >> 20U) % (max + 1));
}

/// The tags of a record, by which a reader sees that an entry is of this record and in one piece.
inline zav_shm::Record_Tags tags_of_record(std::uint64_t number) {
    std::uint64_t state = pattern_begin(number, 11);
    pattern_next(state);
    const auto time = static_cast<std::int64_t>(state >> 2U);
    return {static_cast<std::uint32_t>(number * 2654435761U), static_cast<std::int64_t>(number),
            time};
}

inline bool has_tags_of_record(const zav_shm::Ring_Entry& entry, std::uint64_t number) {
    const zav_shm::Record_Tags tags = tags_of_record(number);
    return entry.flags == tags.flags && entry.pts_ns == tags.pts_ns &&
           entry.time_ns == tags.time_ns;
}
