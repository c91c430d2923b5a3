// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <ctime>

namespace zav_shm::bench::compare {

/// User and system time of a process so far, of all its threads, those included that have ended;
/// in seconds, to the nanosecond. 0 for a process that has been waited for.
inline double process_cpu_seconds(pid_t pid) {
    clockid_t clock{};
    timespec used{};
    if (pid <= 0 || clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        return 0;
    }
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

}  // namespace zav_shm::bench::compare
