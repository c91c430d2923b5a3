// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

namespace zav_shm {

enum class Read_Result {
    complete,    // the whole file was read
    not_opened,  // it does not exist, may not be read, or no path was given
    not_read,    // it is no regular file, too large, or ended early
};

/// Reads a whole regular file. Never waits for another process: a FIFO or a device at that path
/// is refused instead of read.
///
/// @param limit_bytes  a larger file is refused.
/// @param text         the content up to its first zero byte; written only when complete.
/// @param error        what went wrong, with path and reason; written only otherwise.
[[nodiscard]] Read_Result read_text_file(const char* path, std::size_t limit_bytes,
                                         std::string& text, std::string& error);

}  // namespace zav_shm
