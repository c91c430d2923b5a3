// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/stat.h>

#include <string>

namespace zav_shm {

/// The inode of the file of this name, 0 when there is none: shows whether a name still means the
/// file that is open.
inline ino_t inode_of(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace zav_shm
