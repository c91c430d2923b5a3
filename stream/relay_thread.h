// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <memory>

#include "ipc/annotated_mutex.h"

namespace zav_shm {

/// A detached thread that can nevertheless be waited for.
///
/// The relay thread detaches itself, so that it cannot be joined; and a detached thread must not
/// touch a relay that is being destroyed. What both sides need lives in a record of its own that
/// goes with the last of them: the thread reports there, as the last thing it does, that it has
/// left, also when it is cancelled in the middle of a wait.
///
/// Threads  start(), wait_until_left() and cancel() from one thread at a time; the others from any.
class Relay_Thread {
public:
    using Routine = void* (*)(void*);

    /// @return 0, or the error number of thread creation; EBUSY while a thread is running.
    int start(Routine routine, void* argument);

    /// @return true when no thread is running, or it left within `limit`.
    bool wait_until_left(std::chrono::milliseconds limit);

    /// Cancels the thread at its current or next wait, and returns when it has left.
    void cancel();

    /// Sends a signal to the thread. One that is about to leave, or has left, gets none.
    ///
    /// @return true when a thread is running, and the signal is on its way to it.
    bool signal(int number);

    /// An interruptible sleep of the thread: ends early when wake() is called, or was since the
    /// former sleep.
    void sleep(std::chrono::milliseconds time);
    void wake();

private:
    struct State {
        Mutex mutex;
        std::condition_variable changed;  // notified when the thread left, or wake()
        bool running ZAV_SHM_GUARDED_BY(mutex) = false;
        bool woken ZAV_SHM_GUARDED_BY(mutex) = false;
    };
    struct Start;
    struct Leaving;

    static void* main(void* start);

    std::shared_ptr<State> state_ = std::make_shared<State>();
    pthread_t id_ ZAV_SHM_GUARDED_BY(state_->mutex){};  // valid while state_->running
};

}  // namespace zav_shm
