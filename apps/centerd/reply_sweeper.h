// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "apps/centerd/control_queues.h"

namespace zav_shm::centerd {

/// Takes off the reply queue what nobody waits for, once that fills half of it.
///
/// The queue holds 16 KiB for all clients together. Whatever lies in it for good takes their place:
/// replies to processes that are gone or in another PID namespace, and messages that others sent
/// there, under any type. None of these can be told from a reply by its type, but by its age: a
/// client that waits takes its reply at once.
///
/// The kernel keeps no time for a message, but their order. So a message without bytes is put
/// behind those that are there; whatever is still before it after some seconds is that old.
///
/// Threads  one.
/// Crash    leaves the mark behind, which the next center throws away with all the rest.
class Reply_Sweeper {
public:
    using Clock = std::chrono::steady_clock;

    /// @param queues  outlives this.
    explicit Reply_Sweeper(const Control_Queues& queues) : queues_(queues) {}

    /// To be called about once a second; never waits.
    ///
    /// @return how many messages were taken off.
    std::size_t step(Clock::time_point now = Clock::now());

private:
    void put_mark(Clock::time_point now);
    std::size_t take_what_is_before_the_mark() const;

    const Control_Queues& queues_;
    int marked_queue_ = -1;  // -1: there is no mark
    Clock::time_point marked_at_{};
    std::size_t marked_count_ = 0;  // messages with the mark among them
};

}  // namespace zav_shm::centerd
