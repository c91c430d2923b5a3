// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstdint>

#include "ipc/annotated_mutex.h"

namespace zav_shm {

/// A mutex that is granted strictly in the order of asking.
///
/// A relay locks its list through every wait of a cycle and asks for it again at once. With a
/// plain mutex it wins nearly always against a thread that has to be woken first: beside one
/// consumer at 30 fps a pairing command waited 0.4 s in the median and seconds at worst. With
/// tickets a command that arrives during a cycle comes right after it, and a flood of commands
/// cannot keep the relay out either.
///
/// Threads  of one process. Meets BasicLockable; not recursive. As with every mutex, waiting for it
///          is no place at which a thread can be cancelled: its ticket would be left behind, and
///          nobody who came later would ever be let in.
/// Crash    goes with its process.
class ZAV_SHM_CAPABILITY Ticket_Mutex {
public:
    void lock() ZAV_SHM_ACQUIRE() {
        Waiting_Guard guard(state_);
        const std::uint64_t ticket = next_++;
        if (serving_ != ticket) {
            const Uncancelled waiting;
            turn_.wait(guard.lock(), [&]() ZAV_SHM_REQUIRES(state_) { return serving_ == ticket; });
        }
    }

    void unlock() ZAV_SHM_RELEASE() {
        bool awaited = false;
        {
            const Guard guard(state_);
            ++serving_;
            awaited = serving_ != next_;
        }
        if (awaited) {
            turn_.notify_all();  // waiters sort themselves out by their tickets
        }
    }

    /// True when somebody waits behind the holder.
    bool is_awaited() {
        const Guard guard(state_);
        return next_ - serving_ > 1;
    }

private:
    /// While it lives, the calling thread is not cancelled; a request to do so is kept.
    class Uncancelled {
    public:
        Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
        ~Uncancelled() { pthread_setcancelstate(former_, nullptr); }
        Uncancelled(const Uncancelled&) = delete;
        Uncancelled& operator=(const Uncancelled&) = delete;

    private:
        int former_ = PTHREAD_CANCEL_ENABLE;
    };

    Mutex state_;                   // held for a few instructions only
    std::condition_variable turn_;  // notified when `serving_` moves on to somebody's ticket

    // The ticket that the next to ask will draw, and the one that holds, or may take, the mutex.
    std::uint64_t next_ ZAV_SHM_GUARDED_BY(state_) = 0;
    std::uint64_t serving_ ZAV_SHM_GUARDED_BY(state_) = 0;
};

}  // namespace zav_shm
