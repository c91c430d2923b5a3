// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <variant>

#include "apps/rtspd/options.h"

namespace zav_shm::rtspd {

/// Reads the command line, and prints what is asked for or wrong.
///
/// @return the options, or what the process ends with.
std::variant<Options, int> read_arguments(int argc, const char* const* argv);

}  // namespace zav_shm::rtspd
