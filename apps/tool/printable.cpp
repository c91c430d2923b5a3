// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/printable.h"

#include <cstdio>
#include <string_view>

namespace zav_shm::tool {

namespace {

unsigned value(char byte) { return static_cast<unsigned char>(byte); }

// How many bytes the UTF-8 character of more than one byte has that the text begins with; 0 when it
// begins with none, or with a control character (U+0080 to U+009F).
std::size_t character_bytes(std::string_view text) {
    const unsigned first = value(text[0]);
    const std::size_t bytes = first >= 0xF0 ? 4 : (first >= 0xE0 ? 3 : 2);
    if (first < 0xC2 || first > 0xF4 || text.size() < bytes) {
        return 0;
    }
    unsigned code = first & (0xFFU >> (bytes + 1));
    for (const char byte : text.substr(1, bytes - 1)) {
        if ((value(byte) & 0xC0U) != 0x80) {
            return 0;
        }
        code = code << 6U | (value(byte) & 0x3FU);
    }
    constexpr unsigned first_of_3 = 0x800;
    constexpr unsigned first_of_4 = 0x10000;
    const bool is_overlong = code < (bytes == 4 ? first_of_4 : (bytes == 3 ? first_of_3 : 0xA0));
    const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
    return is_overlong || is_surrogate || code > 0x10FFFF ? 0 : bytes;
}

}  // namespace

std::string printable(const std::string& text) {
    std::string shown;
    for (std::string_view rest = text; !rest.empty();) {
        const unsigned first = value(rest[0]);
        const bool is_ascii = first >= 0x20 && first < 0x7F;
        const std::size_t bytes = is_ascii ? 1 : character_bytes(rest);
        if (bytes == 0) {
            char number[8];
            std::snprintf(number, sizeof number, "\\x%02x", first);
            shown += number;
        }
        shown += rest.substr(0, bytes);
        rest.remove_prefix(bytes == 0 ? 1 : bytes);
    }
    return shown;
}

}  // namespace zav_shm::tool
