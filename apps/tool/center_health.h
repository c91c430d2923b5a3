// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "apps/tool/problem.h"
#include "apps/tool/status_file.h"

namespace zav_shm::tool {

/// Whether the status can be believed. The file may be there without anybody behind it: a killed
/// center leaves it. It may also be old though all is well with the center, which cannot write it
/// on a full file system; and the process of a center may be invisible, being in another namespace.
/// So where the file or the process id leave a doubt, the center is asked, for half a second at
/// most.
///
/// @param status  `is_alive` is set when the center answers.
/// @param path    of the file, for the message.
/// @return what is wrong.
std::optional<Problem> trouble_with(Center_Status& status, const std::string& path,
                                    std::chrono::milliseconds wait);

}  // namespace zav_shm::tool
