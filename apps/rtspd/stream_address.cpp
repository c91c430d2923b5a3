// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/stream_address.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "ipc/shared_memory_folder.h"

namespace zav_shm::rtspd {

namespace {

constexpr std::array<std::string_view, 3> stream_names{"main", "sub", "audio"};
constexpr std::size_t name_bytes_max = 31;
constexpr int number_max = 9999;

// Digits as they are written back: "00" is no way to say "0", or one stream had many paths.
std::optional<int> parse_number(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool is_number = error == std::errc() && end == text.data() + text.size() &&
                           number >= 0 && number <= number_max && text == std::to_string(number);
    return is_number ? std::optional(number) : std::nullopt;
}

std::optional<int> parse_stream(std::string_view text) {
    const auto* const found = std::find(stream_names.begin(), stream_names.end(), text);
    return found == stream_names.end() ? parse_number(text)
                                       : static_cast<int>(found - stream_names.begin());
}

int hexadecimal(char digit) {
    constexpr std::string_view digits = "0123456789abcdef";
    const char small = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit - 'A' + 'a') : digit;
    const std::size_t found = digits.find(small);
    return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

// Without "%20" and the like.
std::optional<std::string> decoded(std::string_view text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            plain += text[at];
            continue;
        }
        const int high = at + 2 < text.size() ? hexadecimal(text[at + 1]) : -1;
        const int low = at + 2 < text.size() ? hexadecimal(text[at + 2]) : -1;
        if (high < 0 || low < 0 || high + low == 0) {
            return std::nullopt;
        }
        plain += static_cast<char>(high * 16 + low);
        at += 2;
    }
    return plain;
}

}  // namespace

std::string Stream_Address::text() const {
    return name + "/" + std::to_string(channel) + "/" + std::to_string(stream);
}

std::string Stream_Address::path() const {
    const auto number = static_cast<std::size_t>(stream);
    return "/" + name + "/" + std::to_string(channel) + "/" +
           (number < stream_names.size() ? std::string(stream_names.at(number))
                                         : std::to_string(stream));
}

std::optional<Stream_Address> parse_address(std::string_view text) {
    const std::size_t first = text.find('/');
    const std::size_t second = first == std::string_view::npos ? first : text.find('/', first + 1);
    if (second == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view name = text.substr(0, first);
    const auto channel = parse_number(text.substr(first + 1, second - first - 1));
    const auto stream = parse_stream(text.substr(second + 1));
    if (!is_file_name(name) || name.size() > name_bytes_max || !channel || !stream) {
        return std::nullopt;
    }
    return Stream_Address{std::string(name), *channel, *stream};
}

std::optional<Stream_Address> parse_path(std::string_view path) {
    if (path.empty() || path.front() != '/') {
        return std::nullopt;
    }
    const auto plain = decoded(path.substr(1));
    return plain ? parse_address(*plain) : std::nullopt;
}

}  // namespace zav_shm::rtspd
