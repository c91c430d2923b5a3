// SPDX-License-Identifier: Apache-2.0
#include "ipc/file_content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "ipc/descriptor.h"

namespace zav_shm {

namespace {

constexpr std::size_t block_bytes = 65536;

// O_NONBLOCK keeps a FIFO of that name from blocking the open for ever.
constexpr int foreign_file = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

}  // namespace

ssize_t read_up_to(int descriptor, char* buffer, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        const ssize_t now = read(descriptor, buffer + got, size - got);
        if (now < 0 && errno == EINTR) {
            continue;
        }
        if (now < 0) {
            return -1;
        }
        if (now == 0) {
            break;
        }
        got += static_cast<std::size_t>(now);
    }
    return static_cast<ssize_t>(got);
}

// One byte more than allowed shows that the file is longer. Its size says nothing for sure: it may
// grow meanwhile.
std::optional<File_Content> read_regular_file(const std::string& path, std::size_t bytes_max) {
    const Descriptor file(open(path.c_str(), foreign_file));
    struct stat status {};
    if (!file.is_open() || fstat(file.get(), &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return {};
    }
    File_Content content{{}, status.st_mtim};
    std::string& text = content.text;
    for (bool is_over = false; !is_over && text.size() <= bytes_max;) {
        const std::size_t length = text.size();
        const std::size_t wanted = std::min(block_bytes, bytes_max + 1 - length);
        text.resize(length + wanted);
        const ssize_t got = read_up_to(file.get(), text.data() + length, wanted);
        if (got < 0) {
            return {};
        }
        text.resize(length + static_cast<std::size_t>(got));
        is_over = static_cast<std::size_t>(got) < wanted;
    }
    if (text.size() > bytes_max) {
        errno = EFBIG;
        return {};
    }
    return content;
}

}  // namespace zav_shm
