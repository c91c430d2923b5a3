// SPDX-License-Identifier: Apache-2.0
#include "control/replaced_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace zav_shm {

namespace {

bool write_all(int descriptor, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

File_Replacement::File_Replacement(std::string path)
    : path_(std::move(path)), fresh_(path_ + ".new") {
    unlink(fresh_.c_str());
    file_ = Descriptor(open(fresh_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

File_Replacement::~File_Replacement() {
    if (!is_in_place_) {
        const int error = errno;
        unlink(fresh_.c_str());
        errno = error;
    }
}

// The group before the mode: nobody is let in by the mode who is not meant by the group.
bool File_Replacement::finish(std::string_view content, File_Access access) {
    is_in_place_ = write_all(file_.get(), content) &&
                   fchown(file_.get(), static_cast<uid_t>(-1), access.group) == 0 &&
                   fchmod(file_.get(), access.mode) == 0 &&
                   rename(fresh_.c_str(), path_.c_str()) == 0;
    return is_in_place_;
}

bool replace_file(const std::string& path, std::string_view content, File_Access access) {
    File_Replacement replacement(path);
    return replacement.is_open() && replacement.finish(content, access);
}

}  // namespace zav_shm
