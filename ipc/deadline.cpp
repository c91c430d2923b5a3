// SPDX-License-Identifier: Apache-2.0
#include "ipc/deadline.h"

#include <algorithm>

namespace zav_shm {

namespace {
constexpr long ms_per_second = 1000;
constexpr long ns_per_ms = 1'000'000;
constexpr long ns_per_second = 1'000'000'000;
constexpr std::chrono::milliseconds longest = std::chrono::hours(24) * 3653;
}  // namespace

timespec deadline_after(const timespec& now, long ms) {
    timespec deadline = now;
    deadline.tv_sec += ms / ms_per_second;
    deadline.tv_nsec += (ms % ms_per_second) * ns_per_ms;
    deadline.tv_sec += deadline.tv_nsec / ns_per_second;
    deadline.tv_nsec %= ns_per_second;
    if (deadline.tv_nsec < 0) {
        deadline.tv_nsec += ns_per_second;
        deadline.tv_sec -= 1;
    }
    return deadline;
}

timespec wall_clock_deadline(long ms) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return deadline_after(now, ms);
}

timespec steady_clock_deadline(long ms) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return deadline_after(now, ms);
}

std::chrono::steady_clock::time_point moment_after(std::chrono::milliseconds time) {
    return std::chrono::steady_clock::now() + std::clamp(time, -longest, longest);
}

}  // namespace zav_shm
