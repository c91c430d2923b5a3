// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zav_shm {

struct Utf8_Character {
    std::uint32_t code = 0;
    std::size_t bytes = 0;  // 0: what is there is no valid UTF-8
};

/// The first character of a text that is not empty. Refused are cut and overlong forms, surrogates,
/// and codes beyond the last one.
Utf8_Character first_utf8_character(std::string_view text);

/// Of those that terminals obey instead of showing them.
bool is_control_character(std::uint32_t code);

}  // namespace zav_shm
