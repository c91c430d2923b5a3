// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <variant>

#include "apps/tool/options.h"
#include "apps/tool/problem.h"

namespace zav_shm::tool {

/// Reads the command line.
///
/// @return the options of one command; or the status to exit with at once, after help or version
///         went to standard output, or a complaint to standard error.
std::variant<Options, Exit_Status> read_command_line(int argc, const char* const* argv);

}  // namespace zav_shm::tool
