// SPDX-License-Identifier: Apache-2.0
#include "ring/writer_requests.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "ipc/random_epoch.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm {

namespace {

constexpr int request_flags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

std::string path_of(const std::string& ring) { return ring + ".request"; }

// Whoever may read it may write it, too.
mode_t writable_mode(const std::string& path, const std::optional<Ring_Access>& access) {
    struct stat folder {};
    stat(path.substr(0, path.rfind('/')).c_str(), &folder);
    const mode_t readable = access ? access->mode : readable_file_mode(folder.st_mode);
    return readable | ((readable & 0044U) >> 1U);
}

}  // namespace

// What another user left, or somebody who is not the writer has put there, is replaced as far as
// the folder allows.
Writer_Requests::Writer_Requests(const std::string& ring, const std::optional<Ring_Access>& access)
    : path_(path_of(ring)) {
    struct stat status {};
    file_ = Descriptor(open(path_.c_str(), O_RDONLY | request_flags));
    const bool is_own = file_.is_open() && fstat(file_.get(), &status) == 0 &&
                        S_ISREG(status.st_mode) && status.st_uid == geteuid();
    if (!is_own) {
        unlink(path_.c_str());
        file_ = Descriptor();
    }
    if (!file_.is_open()) {
        file_ = Descriptor(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | request_flags, 0600));
    }
    if (file_.is_open()) {
        const auto group = access ? access->needed_group() : std::nullopt;
        const bool is_theirs = !group || fchown(file_.get(), static_cast<uid_t>(-1), *group) == 0;
        fchmod(file_.get(), is_theirs ? writable_mode(path_, access) : 0600);
        last_ = number();
    }
}

bool Writer_Requests::is_named() const {
    struct stat held {};
    struct stat named {};
    return fstat(file_.get(), &held) == 0 && lstat(path_.c_str(), &named) == 0 &&
           held.st_ino == named.st_ino && held.st_dev == named.st_dev;
}

bool Writer_Requests::take() {
    const std::uint64_t now = number();
    return now != std::exchange(last_, now);
}

std::uint64_t Writer_Requests::number() const {
    std::uint64_t found = 0;
    const ssize_t got = pread(file_.get(), &found, sizeof found, 0);
    return got == static_cast<ssize_t>(sizeof found) ? found : 0;
}

bool send_writer_request(const std::string& ring) {
    const Descriptor file(open(path_of(ring).c_str(), O_WRONLY | request_flags));
    const std::uint64_t number = random_epoch();
    return file.is_open() && pwrite(file.get(), &number, sizeof number, 0) == sizeof number;
}

}  // namespace zav_shm
