// SPDX-License-Identifier: Apache-2.0
#include "config/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace zav_shm {

namespace {

class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return number_; }

private:
    const int number_;
};

// The reason why a file of this kind and size is not read; empty when it is.
std::string refusal(const struct stat& status, std::size_t limit_bytes) {
    if (S_ISDIR(status.st_mode)) {
        return std::strerror(EISDIR);
    }
    if (!S_ISREG(status.st_mode)) {
        return "not a regular file";
    }
    if (status.st_size < 0 || static_cast<std::uintmax_t>(status.st_size) > limit_bytes) {
        return std::to_string(status.st_size) + " bytes, " + std::to_string(limit_bytes) +
               " are the limit";
    }
    return {};
}

// Bytes that were read: fewer than asked for at the end of the file or after an error.
std::size_t read_all(int descriptor, char* target, std::size_t bytes) {
    std::size_t done = 0;
    while (done < bytes) {
        const ssize_t got = read(descriptor, target + done, bytes - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    return done;
}

}  // namespace

Read_Result read_text_file(const char* path, std::size_t limit_bytes, std::string& text,
                           std::string& error) {
    if (path == nullptr) {
        error = "cannot open the file: no path was given";
        return Read_Result::not_opened;
    }
    // O_NONBLOCK keeps a FIFO without a writer from blocking the open for ever.
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (file.get() < 0) {
        error = std::string("cannot open ") + path + ": " + std::strerror(errno);
        return Read_Result::not_opened;
    }
    struct stat status {};
    std::string reason;
    if (fstat(file.get(), &status) != 0) {
        reason = std::strerror(errno);
    } else {
        reason = refusal(status, limit_bytes);
    }
    std::string content;
    if (reason.empty()) {
        content.resize(static_cast<std::size_t>(status.st_size));
        const std::size_t got = read_all(file.get(), content.data(), content.size());
        if (got < content.size()) {
            reason = std::to_string(got) + " of " + std::to_string(content.size()) + " bytes came";
        }
    }
    if (!reason.empty()) {
        error = std::string("cannot read ") + path + ": " + reason;
        return Read_Result::not_read;
    }
    content.resize(std::strlen(content.c_str()));
    text = std::move(content);
    return Read_Result::complete;
}

}  // namespace zav_shm
