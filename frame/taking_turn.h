// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "frame/alarm.h"

namespace zav_shm {

/// Whose turn it is to take frames off the slot: the application's own thread while it waits in
/// receive(), which saves a hand-over from thread to thread for each frame, and else the
/// subscriber's thread.
///
/// An application that is back in receive() at once gives the turn back without waking anybody: an
/// alarm wakes the subscriber's thread should it stay away this time, before the relay gives the
/// next frame up. One that works on each frame wakes the thread when it leaves.
///
/// Beside an even stream the alarm is moved while the application waits: after an idle time a
/// system call costs some microseconds, and between a frame and the return from receive() the other
/// consumers on the same processor wait for them, too.
///
/// Threads  one application, one subscriber's thread, any close.
class Taking_Turn {
public:
    using Clock = std::chrono::steady_clock;

    void open();

    /// Nobody waits any more. Returns when the application has left.
    void close();

    /// The application's side. Waits until it is the application's turn, there is something queued,
    /// or the time is over. While something is in the way nobody takes it.
    ///
    /// @param now  the time, which the caller has read a moment ago.
    /// @return true when it has the turn; leave() has to follow.
    struct Reasons {
        std::function<bool()> is_queued;
        std::function<bool()> is_in_the_way;
    };
    bool enter(Clock::time_point now, Clock::time_point end, const Reasons& reasons);
    void leave(Clock::time_point now);

    /// The application, which has the turn, waits on. To be called every 20 ms.
    void stay(Clock::time_point now);

    /// Wakes the application, which waits in enter(), to ask for its reasons.
    void tell();

    /// The thread's side. Waits until nobody has the turn and the application does not want it, or
    /// there is something else to do.
    ///
    /// @return true when it has the turn; step_back() has to follow. False also when closed.
    bool stand_in(const std::function<bool()>& has_other_work);
    void step_back();

    /// The application waits for the turn that the thread has.
    bool is_wanted();

private:
    enum class Holder { nobody, application, thread };

    void put_alarm_off(Clock::time_point now);

    std::mutex mutex_;  // guards all below
    std::condition_variable application_;
    Alarm thread_;
    Holder holder_ = Holder::nobody;
    Clock::time_point left_{};    // when the application left
    Clock::duration interval_{};  // between the latest two times that it left
    int even_ = 0;                // how many of these in a row were like the one before
    Clock::time_point due_{};     // when the thread may stand in
    bool is_quick_ = false;       // the application was back at once
    bool wanted_ = false;
    bool closed_ = true;
};

}  // namespace zav_shm
