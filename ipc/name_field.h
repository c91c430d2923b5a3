// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace zav_shm {

/// The name field of a handle: 256 bytes, of which storing and clearing zero-fill the first 255.
/// The last byte is written only as the end of a name of exactly 255 characters.
inline constexpr std::size_t name_field_bytes = 256;
inline constexpr std::size_t name_zeroed_bytes = name_field_bytes - 1;
inline constexpr std::size_t name_length_max = name_field_bytes - 1;

inline void clear_name_field(char (&field)[name_field_bytes]) {
    std::memset(field, 0, name_zeroed_bytes);
}

/// Stores `name` in `field`. `name` may be the field itself.
///
/// @return false with the field cleared and errno EINVAL (null) or ENAMETOOLONG (more than
///         255 characters).
inline bool store_name_field(char (&field)[name_field_bytes], const char* name) {
    const std::size_t length = name == nullptr ? 0 : strnlen(name, name_field_bytes);
    if (name == nullptr || length > name_length_max) {
        clear_name_field(field);
        errno = name == nullptr ? EINVAL : ENAMETOOLONG;
        return false;
    }
    char copy[name_field_bytes];
    std::memcpy(copy, name, length);
    copy[length] = '\0';
    clear_name_field(field);
    std::memcpy(field, copy, length + 1);
    return true;
}

}  // namespace zav_shm
