// SPDX-License-Identifier: Apache-2.0
#include "config/utf8.h"

namespace zav_shm {

namespace {

constexpr std::uint32_t greatest_code = 0x10FFFF;

// 0 for a byte that begins no character.
std::size_t length_of_character(unsigned char lead) {
    if (lead < 0x80U) {
        return 1;
    }
    if (lead < 0xC2U || lead > 0xF4U) {
        return 0;
    }
    return lead < 0xE0U ? 2 : lead < 0xF0U ? 3 : 4;
}

bool is_valid(std::uint32_t code, std::size_t bytes) {
    const bool is_overlong = (bytes == 3 && code < 0x800U) || (bytes == 4 && code < 0x10000U);
    const bool is_surrogate = code >= 0xD800U && code <= 0xDFFFU;
    return !is_overlong && !is_surrogate && code <= greatest_code;
}

}  // namespace

Utf8_Character first_utf8_character(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t bytes = length_of_character(lead);
    if (bytes == 0 || text.size() < bytes) {
        return {};
    }
    std::uint32_t code = bytes == 1 ? lead : lead & (0x7FU >> bytes);
    for (const char next : text.substr(1, bytes - 1)) {
        const auto byte = static_cast<unsigned char>(next);
        if ((byte & 0xC0U) != 0x80U) {
            return {};
        }
        code = (code << 6U) | (byte & 0x3FU);
    }
    return is_valid(code, bytes) ? Utf8_Character{code, bytes} : Utf8_Character{};
}

bool is_control_character(std::uint32_t code) {
    return code < 0x20U || (code >= 0x7FU && code < 0xA0U);
}

}  // namespace zav_shm
