// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/memory_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ipc/shared_memory_folder.h"

namespace zav_shm::centerd {

namespace {

constexpr const char* read_only_remedy = "mount it for writing (mount -o remount,rw /dev/shm)";

bool is_read_only() {
    struct statvfs found {};
    return statvfs(shared_memory_folder, &found) == 0 && (found.f_flag & ST_RDONLY) != 0;
}

std::string owner_and_mode(const struct stat& found) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "mode %04o of user %u",
                  static_cast<unsigned>(found.st_mode & 07777U),
                  static_cast<unsigned>(found.st_uid));
    return text.data();
}

}  // namespace

Outcome check_memory_folder() {
    struct stat found {};
    if (stat(shared_memory_folder, &found) != 0 || !S_ISDIR(found.st_mode)) {
        return failure(Exit_Status::system_error,
                       "there is no folder /dev/shm, where segments and semaphores are made; mount "
                       "one (mount -t tmpfs tmpfs /dev/shm)");
    }
    if (is_read_only()) {
        return failure(Exit_Status::system_error,
                       std::string("/dev/shm is mounted read-only; ") + read_only_remedy);
    }
    // Other errors than this one may come from a filter of system calls.
    if (faccessat(AT_FDCWD, shared_memory_folder, W_OK | X_OK, AT_EACCESS) != 0 &&
        errno == EACCES) {
        return failure(Exit_Status::system_error,
                       "/dev/shm has " + owner_and_mode(found) + ", and user " +
                           std::to_string(geteuid()) + " may make nothing there (" +
                           std::strerror(errno) +
                           "); give it the usual mode (chmod 1777 /dev/shm), or run as root");
    }
    return std::nullopt;
}

Failure memory_failure(const std::string& what, int error, const std::string& remedy) {
    switch (error) {
        case EROFS:
            return system_failure(what, error, read_only_remedy);
        case ENOSPC:
        case EDQUOT: {
            Failure full = system_failure(
                what, error,
                "enlarge /dev/shm (mount -o remount,size=...,nr_inodes=... /dev/shm), or remove "
                "what is not used there (df /dev/shm, df -i /dev/shm)");
            full.status = Exit_Status::no_room;
            return full;
        }
        default:
            return system_failure(what, error, remedy);
    }
}

}  // namespace zav_shm::centerd
