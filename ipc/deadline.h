// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <ctime>

namespace zav_shm {

/// The moment `ms` milliseconds after `now`, with tv_nsec in 0 .. 999,999,999.
///
/// Pure: reads no clock. A negative `ms` gives a moment before `now`, normalised the same
/// way, so that a wait with it ends at once instead of being refused.
timespec deadline_after(const timespec& now, long ms);

/// The wall-clock moment `ms` milliseconds from now, for sem_timedwait.
///
/// Follows CLOCK_REALTIME on purpose: a step of the clock lengthens or shortens every wait
/// that is under way.
timespec wall_clock_deadline(long ms);

/// The moment `ms` milliseconds from now on CLOCK_MONOTONIC, for sem_clockwait.
timespec steady_clock_deadline(long ms);

/// The moment `time` from now on the steady clock, ten years away at most: added to a clock as they
/// are, the times that callers give for "without end", such as milliseconds::max(), overflow.
std::chrono::steady_clock::time_point moment_after(std::chrono::milliseconds time);

}  // namespace zav_shm
