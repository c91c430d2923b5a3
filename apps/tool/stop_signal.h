// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace zav_shm::tool {

/// SIGINT, SIGTERM and, unless left alone, SIGHUP as something to look at and to wait for, instead
/// of an end in the middle of a frame. Built before any thread, so that all of them have the
/// signals blocked; a signal that came stays pending, and every later wait returns at once.
class Stop_Signal {
public:
    using Clock = std::chrono::steady_clock;

    enum class Hangup { ends, is_left_alone };

    explicit Stop_Signal(Hangup hangup = Hangup::ends);
    ~Stop_Signal();
    Stop_Signal(const Stop_Signal&) = delete;
    Stop_Signal& operator=(const Stop_Signal&) = delete;

    bool requested() const;

    /// Readable once a signal came.
    int descriptor() const { return descriptor_; }

    /// Sleeps until then.
    ///
    /// @return true when a signal came first, or had come before.
    bool wait_until(Clock::time_point end) const;

    /// Waits until `descriptor` is ready for `events` of poll(), a signal comes, or the time is
    /// over, whatever is first. A descriptor in error counts as ready.
    ///
    /// @return true when the descriptor is ready.
    bool wait_for(int descriptor, short events, Clock::time_point end) const;

private:
    int descriptor_ = -1;
};

}  // namespace zav_shm::tool
