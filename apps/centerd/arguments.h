// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <variant>

#include "apps/centerd/options.h"

namespace zav_shm::centerd {

/// Reads the command line.
///
/// @return the options; or, when the program is to end at once, its exit status: 0 after --help
///         and --version, which were printed, 2 after a mistake, which was reported.
std::variant<Options, int> read_arguments(int argc, const char* const* argv);

}  // namespace zav_shm::centerd
