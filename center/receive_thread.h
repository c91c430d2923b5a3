// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

#include <chrono>

namespace zav_shm {

/// The center's receive thread. It is not cancelled: a request that the kernel had just handed
/// over would be lost. It looks at a flag between two requests, and whoever wants it to end wakes
/// it with a message of its own until it has left.
///
/// Threads  start() and left_within() from one thread at a time.
class Receive_Thread {
public:
    /// Starts `body` with `argument`; does nothing while a thread runs.
    void start(void* (*body)(void*), void* argument);

    /// @return true when no thread runs, or it left within `limit`.
    bool left_within(std::chrono::milliseconds limit);

private:
    pthread_t id_{};
    bool running_ = false;
};

}  // namespace zav_shm
