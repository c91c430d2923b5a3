// SPDX-License-Identifier: Apache-2.0
#include "apps/text/printable.h"

#include <array>
#include <cstdio>
#include <string_view>

#include "config/utf8.h"

namespace zav_shm {

namespace {

std::string escaped(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        std::array<char, 8> number{};
        std::snprintf(number.data(), number.size(), "\\x%02x", static_cast<unsigned char>(byte));
        text += number.data();
    }
    return text;
}

}  // namespace

std::string printable(const std::string& text) {
    std::string shown;
    for (std::string_view rest = text; !rest.empty();) {
        const Utf8_Character first = first_utf8_character(rest);
        const bool is_shown = first.bytes > 0 && !is_control_character(first.code);
        const std::string_view bytes = rest.substr(0, first.bytes > 0 ? first.bytes : 1);
        shown += is_shown ? std::string(bytes) : escaped(bytes);
        rest.remove_prefix(bytes.size());
    }
    return shown;
}

}  // namespace zav_shm
