// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zav_shm {

// Locks of a whole file by which processes show each other that they live: the kernel gives the
// lock of a killed process up at once, and a probe sees it from every PID namespace.
//
// Only who may write to the file can take the exclusive lock. Who may merely read it can take a
// shared one, which therefore counts as nobody's: it is mischief, and no sign of life.
//
// Owner  an open file description, not a process: the lock lasts until the last descriptor of it is
//        closed. A child that was forked and not executed anew keeps its parent's.

/// Takes the exclusive lock without waiting.
///
/// @param descriptor  open for writing
/// @return false with errno: EAGAIN when somebody else has a lock of either kind.
bool take_file_lock(int descriptor);

/// Gives it up, also where other processes have the open file description.
void release_file_lock(int descriptor);

enum class File_Lock_State {
    free,
    exclusive,  // somebody lives
    shared,     // taken by somebody who may only read
    unknown     // the file system has no such locks
};

/// Looks and takes nothing, not even for a moment.
///
/// @param descriptor  open for reading, by another open() than the lock's own: that one never
///                    stands in its own way.
File_Lock_State look_at_file_lock(int descriptor);

}  // namespace zav_shm
