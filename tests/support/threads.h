// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>

/// Threads of this process, as the kernel counts them.
std::size_t thread_count();

/// True when the thread of this process sleeps in the kernel, for instance in a semaphore wait.
bool is_asleep(pid_t thread);

/// Binds the calling thread to one processor; false where that is not allowed.
bool stay_on_processor(int processor);

/// Gives the calling thread the highest real-time priority; false where that is not allowed.
bool go_before_all_others();

/// Asks again and again until `condition` holds or `limit` is over.
bool becomes_true(const std::function<bool()>& condition,
                  std::chrono::milliseconds limit = std::chrono::seconds(10));

/// Time since construction.
class Stopwatch {
public:
    std::chrono::milliseconds elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start_);
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};
