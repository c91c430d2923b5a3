// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "apps/centerd/inventory.h"
#include "apps/centerd/outcome.h"

namespace zav_shm::centerd {

/// Refuses limits of this process (getrlimit) that a start is bound to run into.
Outcome check_limits(const Inventory& inventory);

/// Warns of those with which the center works, though not as meant.
std::vector<std::string> limit_warnings(const Inventory& inventory);

/// Which limit keeps this process from having another thread, as far as can be found out after it
/// has failed, and how to raise it: for the end of a message.
std::string limit_on_threads();

/// The same for memory.
Failure out_of_memory();

}  // namespace zav_shm::centerd
