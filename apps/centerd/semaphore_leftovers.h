// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "apps/centerd/inventory.h"

namespace zav_shm::centerd {

/// Removes from /dev/shm what a center was just making when it was killed. The C library makes each
/// semaphore as "sem." with six random letters, fills it, gives it its name as a second one, and
/// removes the first. Removed is what belongs to the own user and is the first name of one of
/// `semaphores`, or is empty or as a semaphore just made, older than a minute, and open in no
/// process.
void remove_semaphore_leftovers(const std::vector<Shared_File>& semaphores);

}  // namespace zav_shm::centerd
