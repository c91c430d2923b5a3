// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>

namespace zav_shm {

inline constexpr std::int64_t ns_per_ms = 1'000'000;
inline constexpr std::int64_t ns_per_second = 1'000'000'000;

/// CLOCK_MONOTONIC in nanoseconds: comparable between the processes of a device.
inline std::int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * ns_per_second + now.tv_nsec;
}

}  // namespace zav_shm
