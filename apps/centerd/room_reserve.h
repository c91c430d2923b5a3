// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "ipc/descriptor.h"

namespace zav_shm::centerd {

/// Room in /dev/shm that is kept for when it is full: a file without a name.
///
/// The status is replaced by a new file each second. On a full file system that fails, and the
/// former one would look like that of a daemon that hangs, just when somebody wants to know.
///
/// Crash    the kernel gives the room free.
class Room_Reserve {
public:
    /// @param folder  in which the room is to be.
    Room_Reserve(std::string folder, std::uint64_t bytes);

    /// Takes the room, if it is not held already. Fails quietly: there is no more of it, or the
    /// system has no files without names.
    void hold();

    /// Gives it up, for somebody else to take: usually for who calls this.
    void give_up() { file_ = Descriptor(); }

private:
    const std::string folder_;
    const std::uint64_t bytes_;
    Descriptor file_;
};

}  // namespace zav_shm::centerd
