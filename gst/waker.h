// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <atomic>
#include <chrono>

#include "ipc/descriptor.h"

namespace zav_shm::gst {

/// Waits for a descriptor, and can be told to wait no more.
///
/// Threads  wait() from one, the others from any.
class Waker {
public:
    bool is_open() const { return event_.is_open(); }

    /// From now on wait() returns at once.
    void wake() {
        awake_ = true;
        eventfd_write(event_.get(), 1);
    }

    /// No more.
    void rest() {
        eventfd_t events = 0;
        eventfd_read(event_.get(), &events);
        awake_ = false;
    }

    bool is_awake() const { return awake_; }

    /// Until `descriptor`, which may be -1, can be read, until the time is over, or until woken.
    void wait(int descriptor, std::chrono::milliseconds timeout) const {
        std::array<pollfd, 2> waits{{{event_.get(), POLLIN, 0}, {descriptor, POLLIN, 0}}};
        static_cast<void>(poll(waits.data(), waits.size(), static_cast<int>(timeout.count())));
    }

private:
    const Descriptor event_{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
    std::atomic<bool> awake_{false};
};

}  // namespace zav_shm::gst
