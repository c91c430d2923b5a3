// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "apps/rtspd/options.h"
#include "apps/rtspd/problem.h"

namespace zav_shm::rtspd {

/// Serves until SIGTERM, SIGINT or SIGHUP, and prints a line to standard output once it does.
///
/// @return why it does not serve; nothing at the end.
std::optional<Problem> serve(const Options& options);

}  // namespace zav_shm::rtspd
