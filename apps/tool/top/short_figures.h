// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// Figures in a few characters, for columns.

namespace zav_shm::tool {

/// "850us", "12ms", "2.50s", "3m20s", "5h", "12d": 6 characters at most.
std::string short_time(std::int64_t ns);

/// "0", "123456", "1235k", "12M": 6 characters at most.
std::string short_count(std::uint64_t count);

/// "512", "64.0k", "2.1M" (of 1024 each): 6 characters at most.
std::string short_bytes(std::uint64_t bytes);

/// With so many decimals, as far as that fits into `width` characters.
std::string short_number(double number, int decimals, std::size_t width);

/// "-" for what is not known.
template <class Value, class Text>
std::string or_dash(const std::optional<Value>& value, const Text& text) {
    return value ? text(*value) : "-";
}

}  // namespace zav_shm::tool
