// SPDX-License-Identifier: Apache-2.0
#include "ipc/forks.h"

#include <pthread.h>

#include <atomic>

namespace zav_shm {

namespace {

std::atomic<unsigned> forks{0};

}  // namespace

unsigned forks_so_far() {
    static const int registered =
        pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });
    static_cast<void>(registered);
    return forks.load(std::memory_order_relaxed);
}

}  // namespace zav_shm
