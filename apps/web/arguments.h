// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <variant>

#include "apps/web/options.h"

namespace zav_shm::web {

enum class Exit_Status { ok = 0, system_error = 1, usage = 2 };

/// Reads the command line; says on standard error what is wrong with it.
///
/// @return the options, or the status to end with at once.
std::variant<Options, int> read_arguments(int argc, char** argv);

}  // namespace zav_shm::web
