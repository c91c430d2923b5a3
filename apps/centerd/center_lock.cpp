// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/center_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <utility>

#include "apps/centerd/memory_folder.h"

namespace zav_shm::centerd {

namespace {

// Only the own user's: whoever may open the file may lock it, and so keep the center away.
constexpr mode_t lock_mode = 0600;
constexpr int lock_flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

// The file can be removed and made again between two steps; not for ever, though.
constexpr int attempts_max = 100;

}  // namespace

Center_Lock::Center_Lock(std::string path, std::string guarded)
    : path_(std::move(path)), guarded_(std::move(guarded)) {}

Outcome Center_Lock::take() {
    if (has_its_name()) {
        return std::nullopt;
    }
    file_ = Descriptor();
    for (int i = 0; i < attempts_max; ++i) {
        Descriptor file = open_file();
        if (!file.is_open()) {
            if (errno == ENOENT || errno == EEXIST) {
                continue;
            }
            const int error = errno;
            if (Outcome held = find_holder()) {
                return held;
            }
            return memory_failure("lock " + path_, error,
                                  "it may be another user's: run as that user, or remove it");
        }
        if (Outcome failed = lock(std::move(file))) {
            return failed;
        }
        if (file_.is_open()) {
            return std::nullopt;
        }
    }
    return system_failure("lock " + path_, EAGAIN, "something removes it again and again");
}

Outcome Center_Lock::take_existing() {
    Descriptor file(open(path_.c_str(), lock_flags));
    return file.is_open() ? lock(std::move(file)) : find_holder();
}

// Keeps the file when that is still the one of this name.
Outcome Center_Lock::lock(Descriptor file) {
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        return error == EWOULDBLOCK
                   ? held_by(lock_holder(path_))
                   : system_failure("lock " + path_, error, "check the file system");
    }
    if (has_name(file)) {
        file_ = std::move(file);
    }
    return std::nullopt;
}

Outcome Center_Lock::find_holder() const {
    const auto pid = lock_holder(path_);
    return pid ? Outcome(held_by(pid)) : std::nullopt;
}

void Center_Lock::release() {
    if (has_its_name()) {
        unlink(path_.c_str());
    }
    file_ = Descriptor();
}

// Opening without O_CREAT first: in a folder like /dev/shm, root itself may not "create" what
// another user owns (fs.protected_regular).
Descriptor Center_Lock::open_file() const {
    Descriptor file(open(path_.c_str(), lock_flags));
    if (!file.is_open() && errno == ENOENT) {
        return Descriptor(open(path_.c_str(), lock_flags | O_CREAT | O_EXCL, lock_mode));
    }
    return file;
}

bool Center_Lock::has_name(const Descriptor& file) const {
    struct stat opened {};
    struct stat named {};
    return fstat(file.get(), &opened) == 0 && lstat(path_.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

Failure Center_Lock::held_by(std::optional<pid_t> pid) const {
    const std::string who =
        pid ? "the process " + std::to_string(*pid) : "a process that is not visible from here";
    return failure(Exit_Status::already_running, guarded_ + " is served by " + who +
                                                     ", which holds " + path_ +
                                                     "; one center at a time: end that one first");
}

// The kernel's list knows the holder also of a file that may not be opened, and never names a
// process that is dead. Whoever reads it waits until every processor has switched tasks, which
// takes seconds on a machine that is busy enough: not to be read where all is well.
std::optional<pid_t> lock_holder(const std::string& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return std::nullopt;
    }
    std::ifstream list("/proc/locks");
    for (std::string line; std::getline(list, line);) {
        int pid = 0;
        unsigned device_major = 0;
        unsigned device_minor = 0;
        unsigned long long inode = 0;
        if (std::sscanf(line.c_str(), "%*d: FLOCK %*s WRITE %d %x:%x:%llu", &pid, &device_major,
                        &device_minor, &inode) == 4 &&
            device_major == major(found.st_dev) && device_minor == minor(found.st_dev) &&
            inode == found.st_ino && pid > 0) {
            return pid;
        }
    }
    return std::nullopt;
}

}  // namespace zav_shm::centerd
