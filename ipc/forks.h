// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zav_shm {

/// How often this process has been forked off another one since it has known this code. Compared
/// with what it was when an object was opened, it tells whether this is a child of the process that
/// did so; to ask for the process id would cost a system call each time.
///
/// Threads  any; in a child at once.
unsigned forks_so_far();

/// Why an object of the parent is of no use.
inline constexpr const char* of_parent = "opened by the process that forked this one; open another";

}  // namespace zav_shm
