// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/argument_checks.h"

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "apps/tool/options.h"
#include "apps/tool/rate.h"

namespace zav_shm::tool {

namespace {

template <typename Number>
bool lies_between(const std::string& text, Number least, Number greatest) {
    Number value{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end && value >= least && value <= greatest;
}

// Without the decimals of a whole number.
std::string text_of(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", number);
    return text;
}

}  // namespace

std::string whole_number_mistake(const std::string& text, std::uint64_t least,
                                 std::uint64_t greatest) {
    if (lies_between(text, least, greatest)) {
        return {};
    }
    return "'" + text + "' is no whole number from " + std::to_string(least) + " to " +
           std::to_string(greatest);
}

std::string number_mistake(const std::string& text, double least, double greatest) {
    if (lies_between(text, least, greatest)) {
        return {};
    }
    return "'" + text + "' is no number from " + text_of(least) + " to " + text_of(greatest);
}

std::string rate_mistake(const std::string& text) {
    if (parse_rate(text)) {
        return {};
    }
    return "'" + text + "' is no rate from 0 to " + std::to_string(rate_max) +
           " frames per second, such as 25, 29.97 or 30000/1001";
}

std::string name_mistake(const std::string& text) {
    if (text.empty()) {
        return "the name is empty";
    }
    if (text.size() > name_bytes_max) {
        return "'" + text + "' has " + std::to_string(text.size()) + " characters, a name has " +
               std::to_string(name_bytes_max) + " at most";
    }
    return {};
}

std::string folder_mistake(const std::string& text) {
    if (text.empty() || text == "." || text == ".." || text.find('/') != std::string::npos ||
        text.size() > name_bytes_max) {
        return "'" + text + "' is no name of a folder below /dev/shm (1 to " +
               std::to_string(name_bytes_max) + " characters, no slash)";
    }
    return {};
}

bool is_same_file(const std::string& one, const std::string& other) {
    std::error_code failed;
    if (std::filesystem::exists(one, failed) && !std::filesystem::is_regular_file(one, failed)) {
        return false;
    }
    if (std::filesystem::equivalent(one, other, failed)) {
        return true;
    }
    const auto first = std::filesystem::weakly_canonical(one, failed);
    const auto second = std::filesystem::weakly_canonical(other, failed);
    return !failed && first == second;
}

std::string choice_mistake(const std::string& text, const std::string& one,
                           const std::string& other) {
    return text == one || text == other ? std::string()
                                        : "'" + text + "' is neither " + one + " nor " + other;
}

}  // namespace zav_shm::tool
