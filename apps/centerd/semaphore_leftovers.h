// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zav_shm::centerd {

/// Removes from /dev/shm the semaphores that a center was just making when it was killed. The C
/// library makes each as "sem." with six random letters and gives it its name when it is whole;
/// such a file belongs to no name and is never used. Removed is what has the length and content of
/// a semaphore just made, belongs to the own user, is older than a minute, and no process has open.
void remove_semaphore_leftovers();

}  // namespace zav_shm::centerd
