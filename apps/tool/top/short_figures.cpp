// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/top/short_figures.h"

#include <array>
#include <cmath>
#include <cstdio>

#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

std::string decimal(double number, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, number);
    return text.data();
}

}  // namespace

std::string short_time(std::int64_t ns) {
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    constexpr std::int64_t day = 24 * hour;
    const std::int64_t s = ns / ns_per_second;
    if (ns < ns_per_ms) {
        return std::to_string(ns / 1000) + "us";
    }
    if (ns < ns_per_second) {
        return std::to_string(ns / ns_per_ms) + "ms";
    }
    if (s < minute) {
        return decimal(static_cast<double>(ns) / 1e9, s < 10 ? 2 : 1) + "s";
    }
    if (s < 100 * minute) {
        return std::to_string(s / minute) + "m" + std::to_string(s % minute) + "s";
    }
    return s < 10 * day ? std::to_string(s / hour) + "h" : std::to_string(s / day) + "d";
}

std::string short_count(std::uint64_t count) {
    constexpr std::array units = {"", "k", "M", "G", "T", "P"};
    std::size_t unit = 0;
    while (count >= (unit == 0 ? 1'000'000U : 100'000U) && unit + 1 < units.size()) {
        count = (count + 500) / 1000;
        ++unit;
    }
    return std::to_string(count) + units[unit];
}

std::string short_bytes(std::uint64_t bytes) {
    constexpr std::array units = {"", "k", "M", "G", "T", "P", "E"};
    auto number = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; number >= 1024 && unit + 1 < units.size(); ++unit) {
        number /= 1024;
    }
    return decimal(number, unit > 0 && number < 100 ? 1 : 0) + units[unit];
}

std::string short_number(double number, int decimals, std::size_t width) {
    for (; decimals > 0; --decimals) {
        if (const std::string text = decimal(number, decimals); text.size() <= width) {
            return text;
        }
    }
    const std::string text = decimal(number, 0);
    return text.size() <= width ? text : short_count(static_cast<std::uint64_t>(number));
}

}  // namespace zav_shm::tool
