// SPDX-License-Identifier: Apache-2.0
#include "ring/writer_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "ipc/file_lock.h"

namespace zav_shm {

namespace {

// The file can be removed and made again between two steps; not for ever, though.
constexpr int attempts_max = 100;

constexpr int lock_flags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

bool has_name(int descriptor, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return fstat(descriptor, &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

pid_t pid_in(int descriptor) {
    std::array<char, 16> text{};
    const ssize_t got = pread(descriptor, text.data(), text.size() - 1, 0);
    pid_t pid = 0;
    std::from_chars(text.data(), text.data() + std::max<ssize_t>(got, 0), pid);
    return std::max(pid, 0);
}

bool write_pid(int descriptor) {
    const std::string text = std::to_string(getpid()) + "\n";
    return ftruncate(descriptor, 0) == 0 &&
           pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

// Opened without O_CREAT first: in a sticky folder root itself may not "create" what another user
// owns (fs.protected_regular).
int open_file(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDWR | lock_flags);
    return descriptor >= 0 || errno != ENOENT
               ? descriptor
               : open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | lock_flags, 0600);
}

Ring_Problem::Kind kind_of(int error) {
    switch (error) {
        case EACCES:
        case EPERM:
            return Ring_Problem::Kind::forbidden;
        case ENOSPC:
        case EDQUOT:
            return Ring_Problem::Kind::no_room;
        default:
            return Ring_Problem::Kind::system;
    }
}

Ring_Problem cannot_open(const std::string& path, int error) {
    struct stat status {};
    const std::string owner = lstat(path.c_str(), &status) == 0
                                  ? "; it belongs to user " + std::to_string(status.st_uid) +
                                        ": run as that user, or have it removed"
                                  : "";
    return {kind_of(error), "cannot open " + path + ": " + std::strerror(error) + owner, 0};
}

Ring_Problem cannot_lock(const std::string& path, int descriptor, int error) {
    if (error != EAGAIN) {
        return {Ring_Problem::Kind::system, "cannot lock " + path + ": " + std::strerror(error), 0};
    }
    const pid_t holder = pid_in(descriptor);  // 0: it has not written it yet
    const std::string who = holder != 0 ? "process " + std::to_string(holder) : "another process";
    return {Ring_Problem::Kind::held, who + " has " + path, holder};
}

}  // namespace

bool Writer_Lock::take(const std::string& path, Ring_Problem& problem) {
    for (int i = 0; i < attempts_max; ++i) {
        Descriptor file(open_file(path));
        if (!file.is_open()) {
            if (errno == ENOENT || errno == EEXIST) {
                continue;
            }
            problem = cannot_open(path, errno);
            return false;
        }
        if (!take_file_lock(file.get())) {
            problem = cannot_lock(path, file.get(), errno);
            return false;
        }
        if (has_name(file.get(), path)) {
            if (!write_pid(file.get())) {
                const int error = errno;
                problem = {kind_of(error), "cannot write " + path + ": " + std::strerror(error), 0};
                unlink(path.c_str());
                return false;
            }
            file_ = std::move(file);
            path_ = path;
            owner_ = getpid();
            return true;
        }
    }
    problem = {Ring_Problem::Kind::system, path + " is removed again and again", 0};
    return false;
}

bool Writer_Lock::is_own() const { return file_.is_open() && owner_ == getpid(); }

// Not by closing alone: children that were forked have the file open, too.
void Writer_Lock::release() {
    if (is_own()) {
        release_file_lock(file_.get());
    }
    file_ = Descriptor();
}

// Whoever has opened the file meanwhile and then takes the lock finds that it has no name.
void Writer_Lock::remove() {
    if (is_own()) {
        unlink(path_.c_str());
    }
    release();
}

}  // namespace zav_shm
