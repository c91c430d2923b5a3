// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>

namespace zav_shm {

/// Wakes one thread at a time that others may set, bring forward and put off while it sleeps,
/// without waking it for that: a condition variable's waiter would have to be woken to be told of a
/// new time.
///
/// Takes one file descriptor (timerfd). Without one it rings every 12 ms, as a thread that looks by
/// itself would.
///
/// Threads  wait(): one; the others: any, under a mutex of the caller's.
class Alarm {
public:
    using Clock = std::chrono::steady_clock;

    Alarm();
    ~Alarm();
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;

    /// Rings at `time`, at once when that is past. One that is set for an earlier time stays as it
    /// is.
    void set(Clock::time_point time);

    /// Rings at `time` and at no other.
    void move_to(Clock::time_point time);

    /// True when it is set for `time` or before.
    bool rings_by(Clock::time_point time) const { return set_for_ && *set_for_ <= time; }

    /// Sleeps until it rings. Called without the mutex, and may return although nothing rang;
    /// has_rung() follows under the mutex.
    void wait() const;
    void has_rung();

private:
    const int descriptor_;
    std::optional<Clock::time_point> set_for_;
};

}  // namespace zav_shm
