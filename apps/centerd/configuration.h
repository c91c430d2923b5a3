// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "apps/centerd/outcome.h"
#include "config/zav_shm_config.h"

namespace zav_shm::centerd {

/// Loads the file, or the defaults when `path` is empty, and refuses what a center should not be
/// run with, with the warnings that may explain it: whatever does not load, what
/// ZAV_SHM_CONFIG::problems() names, and a ROOT_PATH that is not /dev/shm, where segments are made
/// in any case.
Outcome load(const std::string& path, ZAV_SHM_CONFIG& config);

/// What the daemon calls the configuration: the path, or "the built-in defaults".
std::string title_of(const std::string& path);

}  // namespace zav_shm::centerd
