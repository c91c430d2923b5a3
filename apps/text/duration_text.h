// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// Times and sizes as people write them.

namespace zav_shm {

inline constexpr double seconds_max = 31'536'000;  // a year

/// Reads "10s", "500ms", "2m", "1.5h", or a number of seconds, up to a year. Parts of a nanosecond
/// are rounded up.
std::optional<std::chrono::nanoseconds> parse_duration(const std::string& text);

/// Reads "10M", "512k", "2G" (of 1024 each), or a number of bytes, from 1 to 2^40.
std::optional<std::uint64_t> parse_size(const std::string& text);

/// What is wrong with such a text, or nothing.
std::string duration_mistake(const std::string& text);
std::string size_mistake(const std::string& text);

}  // namespace zav_shm
