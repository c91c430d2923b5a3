// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>

namespace zav_shm::bench {

inline constexpr std::int64_t ns_per_second = 1'000'000'000;

/// CLOCK_MONOTONIC in nanoseconds: the same clock in every process of the machine.
inline std::int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * ns_per_second + now.tv_nsec;
}

/// Returns at that moment, at once if it has passed.
inline void sleep_until_ns(std::int64_t moment_ns) {
    timespec moment{};
    moment.tv_sec = static_cast<time_t>(moment_ns / ns_per_second);
    moment.tv_nsec = static_cast<long>(moment_ns % ns_per_second);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &moment, nullptr) != 0) {
    }
}

inline void sleep_seconds(double seconds) {
    sleep_until_ns(monotonic_ns() +
                   static_cast<std::int64_t>(seconds * static_cast<double>(ns_per_second)));
}

inline double seconds_from_ns(std::int64_t ns) {
    return static_cast<double>(ns) / static_cast<double>(ns_per_second);
}

}  // namespace zav_shm::bench
