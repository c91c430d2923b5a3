// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "apps/centerd/outcome.h"

namespace zav_shm::centerd {

/// Refuses a folder that is missing, mounted read-only, or in which this process may make nothing.
Outcome check_memory_folder();

/// Of a system call on something below that folder. Errors that are the folder's have its remedy,
/// and a lack of room the status for that; all others have `remedy`.
Failure memory_failure(const std::string& what, int error, const std::string& remedy);

}  // namespace zav_shm::centerd
