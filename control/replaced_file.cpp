// SPDX-License-Identifier: Apache-2.0
#include "control/replaced_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "ipc/descriptor.h"

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

// The group before the mode: nobody is let in by the mode who is not meant by the group.
bool write_new_file(const std::string& path, std::string_view content, File_Access access) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return file.is_open() && write_all(file.get(), content) &&
           fchown(file.get(), static_cast<uid_t>(-1), access.group) == 0 &&
           fchmod(file.get(), access.mode) == 0;
}

}  // namespace

bool replace_file(const std::string& path, std::string_view content, File_Access access) {
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    if (write_new_file(fresh, content, access) && rename(fresh.c_str(), path.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

}  // namespace zav_shm
