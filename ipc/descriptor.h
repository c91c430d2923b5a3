// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zav_shm {

/// Owner of a file descriptor; closes it, and leaves errno as it is.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            close();
            number_ = std::exchange(other.number_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return number_; }
    bool is_open() const { return number_ >= 0; }

private:
    void close() const {
        if (number_ >= 0) {
            const int error = errno;
            ::close(number_);
            errno = error;
        }
    }

    int number_ = -1;
};

}  // namespace zav_shm
