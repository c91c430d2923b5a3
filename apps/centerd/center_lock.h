// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "apps/centerd/outcome.h"
#include "ipc/descriptor.h"

namespace zav_shm::centerd {

/// A lock on a file, by which there is one center for each folder of segments, and one for the
/// machine's two queues, which every center shares whatever its folder.
///
/// Owner    the process that holds it; the file is removed when the lock is given up.
/// Crash    the kernel gives the lock of a killed process up at once. Its file stays and hinders
///          nobody but other users, who may not open it.
class Center_Lock {
public:
    /// @param guarded  what it stands for, in messages: "the folder /dev/shm/shm".
    Center_Lock(std::string path, std::string guarded);
    ~Center_Lock() = default;
    Center_Lock(const Center_Lock&) = delete;
    Center_Lock& operator=(const Center_Lock&) = delete;

    /// Takes the lock without waiting, unless it is held here already under its name; the folder of
    /// the file has to be there.
    Outcome take();

    /// False when the lock is not held here, or its file was removed: others can take one of the
    /// same name then.
    bool has_its_name() const { return file_.is_open() && has_name(file_); }

    const std::string& path() const { return path_; }

    /// The same when the file is there: a killed center has left it, or one that runs holds it.
    /// Otherwise makes nothing; take() is still to come.
    Outcome take_existing();

    /// The failure that take() would report because somebody holds the lock. Makes nothing and
    /// takes nothing, not even for a moment; may last seconds on a busy machine.
    Outcome find_holder() const;

    /// Removes the file, unless it is another one's by now, and gives the lock up, in this order,
    /// so that nobody can have locked the file that is removed. Whoever opens it in between notices
    /// that it has lost its name.
    void release();

private:
    Descriptor open_file() const;
    Outcome lock(Descriptor file);
    bool has_name(const Descriptor& file) const;
    Failure held_by(std::optional<pid_t> pid) const;

    const std::string path_;
    const std::string guarded_;
    Descriptor file_;
};

/// The process that holds a lock on this file, as far as it is visible from here.
std::optional<pid_t> lock_holder(const std::string& path);

}  // namespace zav_shm::centerd
