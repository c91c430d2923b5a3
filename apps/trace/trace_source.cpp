// SPDX-License-Identifier: Apache-2.0
#include "apps/trace/trace_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zav_shm::trace {

// Without blocking, so that a named pipe is refused and not waited for.
std::string Trace_File::open(const std::string& file) {
    descriptor_ = Descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (descriptor_.get() < 0 || fstat(descriptor_.get(), &status) != 0) {
        return std::strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "it is no regular file";
    }
    size_bytes_ = static_cast<std::uint64_t>(status.st_size);
    return {};
}

std::string Trace_File::read(std::uint64_t offset, std::span<std::byte> bytes) const {
    while (!bytes.empty()) {
        const ssize_t got =
            pread(descriptor_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got < 0 ? std::strerror(errno) : "the file has become shorter";
        }
        offset += static_cast<std::uint64_t>(got);
        bytes = bytes.subspan(static_cast<std::size_t>(got));
    }
    return {};
}

std::string Trace_Memory::read(std::uint64_t offset, std::span<std::byte> bytes) const {
    if (offset > bytes_.size() || bytes.size() > bytes_.size() - offset) {
        return "there are no such bytes";
    }
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), bytes.size(), bytes.begin());
    return {};
}

}  // namespace zav_shm::trace
