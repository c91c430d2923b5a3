// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace zav_shm {

/// Who may use a file.
struct File_Access {
    mode_t mode = 0600;
    gid_t group = static_cast<gid_t>(-1);  // -1: that of the writing process
};

/// Writes a whole file under the name `path` + ".new" and renames it: a reader finds the former
/// content or the new one, never a part of either, also when the writer is killed.
///
/// Owner    one writer for each path at a time.
/// Crash    leaves `path`.new behind, which the next writer removes.
/// @return  false with errno when it could not be written; then `path` is as it was, and nothing
///          lies beside it.
bool replace_file(const std::string& path, std::string_view content, File_Access access = {});

}  // namespace zav_shm
