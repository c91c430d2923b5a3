// SPDX-License-Identifier: Apache-2.0
#include "apps/text/duration_text.h"

#include <array>
#include <charconv>
#include <string_view>
#include <utility>

namespace zav_shm {

namespace {

constexpr std::uint64_t size_max = std::uint64_t{1} << 40U;

// A number that is not negative, and what stands behind it.
template <class Number>
std::optional<std::pair<Number, std::string_view>> leading_number(const std::string& text) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || !(value >= Number{0}) || text[0] == '-') {
        return {};
    }
    return std::pair(value, std::string_view(stop, static_cast<std::size_t>(end - stop)));
}

template <class Unit, std::size_t count>
std::optional<Unit> unit_of(const std::array<std::pair<std::string_view, Unit>, count>& units,
                            std::string_view name) {
    for (const auto& [known, unit] : units) {
        if (known == name) {
            return unit;
        }
    }
    return {};
}

}  // namespace

std::optional<std::chrono::nanoseconds> parse_duration(const std::string& text) {
    constexpr std::array<std::pair<std::string_view, double>, 5> units{
        {{"", 1}, {"ms", 0.001}, {"s", 1}, {"m", 60}, {"h", 3600}}};
    const auto number = leading_number<double>(text);
    const auto unit = number ? unit_of(units, number->second) : std::nullopt;
    if (!unit || !(number->first * *unit <= seconds_max)) {
        return {};
    }
    const std::chrono::duration<double> seconds(number->first * *unit);
    return std::chrono::ceil<std::chrono::nanoseconds>(seconds);
}

std::optional<std::uint64_t> parse_size(const std::string& text) {
    constexpr std::array<std::pair<std::string_view, unsigned>, 4> units{
        {{"", 0U}, {"k", 10U}, {"M", 20U}, {"G", 30U}}};
    const auto number = leading_number<std::uint64_t>(text);
    const auto shift = number ? unit_of(units, number->second) : std::nullopt;
    if (!shift || number->first == 0 || number->first > size_max >> *shift) {
        return {};
    }
    return number->first << *shift;
}

std::string duration_mistake(const std::string& text) {
    return parse_duration(text)
               ? std::string()
               : "'" + text + "' is no time up to a year, such as 10s, 500ms, 2m or 1.5";
}

std::string size_mistake(const std::string& text) {
    return parse_size(text) ? std::string()
                            : "'" + text + "' is no size from 1 byte to 1024G, such as 10M or 512k";
}

}  // namespace zav_shm
