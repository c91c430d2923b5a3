// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/rate.h"

#include <charconv>
#include <string_view>

namespace zav_shm::tool {

namespace {

constexpr std::uint64_t part_max = 1'000'000;

std::optional<std::uint64_t> parse_whole(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return {};
    }
    return value;
}

std::optional<Rate> checked(std::optional<std::uint64_t> num, std::optional<std::uint64_t> den) {
    if (!num || !den || *den == 0 || *num > part_max || *den > part_max || *num > rate_max * *den) {
        return {};
    }
    return Rate{static_cast<std::uint32_t>(*num), static_cast<std::uint32_t>(*den)};
}

}  // namespace

std::optional<Rate> parse_rate(const std::string& text) {
    if (text == "23.976" || text == "29.97" || text == "59.94") {
        return Rate{text == "23.976" ? 24000U : text == "29.97" ? 30000U : 60000U, 1001};
    }
    const std::string_view whole(text);
    if (const std::size_t slash = whole.find('/'); slash != std::string_view::npos) {
        return checked(parse_whole(whole.substr(0, slash)), parse_whole(whole.substr(slash + 1)));
    }
    const std::size_t point = whole.find('.');
    if (point == std::string_view::npos) {
        return checked(parse_whole(whole), 1);
    }
    const std::string_view decimals = whole.substr(point + 1);
    if (decimals.empty() || decimals.size() > 3) {
        return {};
    }
    std::uint64_t den = 1;
    for (std::size_t i = 0; i < decimals.size(); ++i) {
        den *= 10;
    }
    const auto before = parse_whole(whole.substr(0, point));
    const auto after = parse_whole(decimals);
    if (!before || !after || *before > rate_max) {
        return {};
    }
    return checked(*before * den + *after, den);
}

std::chrono::nanoseconds time_of(const Rate& rate, std::uint64_t number) {
    constexpr std::uint64_t second = 1'000'000'000;
    if (!rate.is_paced()) {
        return {};
    }
    // Split, so that nothing overflows within thousands of years of frames.
    const std::uint64_t units = number * rate.den;
    const std::uint64_t ns = units / rate.num * second + units % rate.num * second / rate.num;
    return std::chrono::nanoseconds(static_cast<std::int64_t>(ns));
}

}  // namespace zav_shm::tool
