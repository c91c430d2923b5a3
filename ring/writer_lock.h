// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>

#include "ipc/descriptor.h"
#include "ring/ring_memory.h"

namespace zav_shm {

/// The right to write a ring: an exclusive lock of a file beside it, in which the holder's process
/// id stands. Only the own user may open the file: whoever could read it could lock it, too, and so
/// keep the writer out.
///
/// Owner    the process that took it. A child that it forks and that does not execute anew can
///          neither use it nor give it up, but keeps it when its parent is killed, for as long as
///          the child lives.
/// Crash    the kernel gives the lock of a killed process up. The file stays and hinders nobody but
///          other users.
class Writer_Lock {
public:
    Writer_Lock() = default;
    Writer_Lock(Writer_Lock&&) = default;
    Writer_Lock& operator=(Writer_Lock&&) = default;
    ~Writer_Lock() { release(); }

    /// Takes the lock without waiting.
    ///
    /// @return false with the problem; `held` names the process in the file.
    bool take(const std::string& path, Ring_Problem& problem);

    /// Gives it up; the file stays.
    void release();

    /// Gives it up and removes the file.
    void remove();

private:
    bool is_own() const;

    Descriptor file_;
    std::string path_;
    pid_t owner_ = 0;
};

}  // namespace zav_shm
