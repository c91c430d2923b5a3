// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace zav_shm::tool {

/// Frames per second as a fraction; 0/1 is "as they arrive".
struct Rate {
    std::uint32_t num = 0;
    std::uint32_t den = 1;

    bool is_paced() const { return num != 0; }
    bool operator==(const Rate&) const = default;
};

/// Two fields for each frame.
constexpr Rate fields_of(const Rate& frames) { return {2 * frames.num, frames.den}; }

inline constexpr std::uint32_t rate_max = 1000;

/// Reads "25", "29.97", "12.5" or "30000/1001", from 0 to rate_max frames per second; the
/// customary 23.976, 29.97 and 59.94 mean the fractions with 1001.
std::optional<Rate> parse_rate(const std::string& text);

/// When frame `number`, from 0, is due after the first; exact, without a sum of roundings.
std::chrono::nanoseconds time_of(const Rate& rate, std::uint64_t number);

}  // namespace zav_shm::tool
