// SPDX-License-Identifier: Apache-2.0
#include "center/receive_thread.h"

#include "ipc/deadline.h"

namespace zav_shm {

void Receive_Thread::start(void* (*body)(void*), void* argument) {
    if (!running_) {
        running_ = pthread_create(&id_, nullptr, body, argument) == 0;
    }
}

bool Receive_Thread::left_within(std::chrono::milliseconds limit) {
    if (running_) {
        const timespec deadline = wall_clock_deadline(static_cast<long>(limit.count()));
        running_ = pthread_timedjoin_np(id_, nullptr, &deadline) != 0;
    }
    return !running_;
}

}  // namespace zav_shm
