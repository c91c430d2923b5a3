// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>

namespace zav_shm {

/// Reads until `size` bytes are there or the file ends. A signal does not cut it short.
///
/// @return how many bytes were read, or -1 with errno.
ssize_t read_up_to(int descriptor, char* buffer, std::size_t size);

struct File_Content {
    std::string text;
    timespec changed{};  // when it was last written, by the wall clock
};

/// Reads a whole file that others have written. A symbolic link is not followed, and what is no
/// regular file is not waited for.
///
/// @return nothing, with errno, when it cannot be read, is no regular file (EINVAL, a folder:
///         EISDIR), or is longer than `bytes_max` (EFBIG).
std::optional<File_Content> read_regular_file(const std::string& path, std::size_t bytes_max);

}  // namespace zav_shm
