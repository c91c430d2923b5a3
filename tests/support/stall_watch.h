// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

/// Notes when a processor of this machine ran no thread at all for longer than 5 ms: a virtual
/// machine that its host does not run, or a kernel that is busy with itself. What is late then is
/// not late because of the processes under test.
///
/// One thread of the highest real-time priority per processor sleeps for 1 ms at a time. Where
/// such a priority is not allowed, nothing is noted.
class Stall_Watch {
public:
    Stall_Watch();
    ~Stall_Watch();
    Stall_Watch(const Stall_Watch&) = delete;
    Stall_Watch& operator=(const Stall_Watch&) = delete;

    /// How much of the time between two moments of CLOCK_MONOTONIC some processor stood still.
    std::int64_t stalled_ns(std::int64_t from_ns, std::int64_t to_ns) const;

private:
    struct Stall {
        std::int64_t from_ns;
        std::int64_t to_ns;
    };

    void watch(int processor);

    std::atomic<bool> ends_{false};
    mutable std::mutex mutex_;
    std::vector<Stall> stalls_;  // guarded by mutex_
    std::vector<std::thread> threads_;
};
