// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace zav_shm {

/// The Unix group of this name, or of this number; nothing when there is no such name. A number
/// needs no entry: files can belong to it all the same.
std::optional<gid_t> group_id(const std::string& name);

/// Its name, or its number where it has none.
std::string group_title(gid_t group);

/// The user's name, or its number where it has none.
std::string user_title(uid_t user);

}  // namespace zav_shm
