// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <ctime>
#include <map>
#include <optional>
#include <string>

#include "ipc/zav_msg_q.h"

namespace zav_shm {

/// Requests that were sent and are not answered yet. The center serves them all the same, sooner or
/// later, and each registration that it serves starts the consumer's channel anew, which costs a
/// frame: so the same request is not sent again while the first may still be answered. A center
/// that starts throws away what has waited for it: then it has to be sent again.
///
/// Requests are served in the order of sending, so the one about a channel end that was sent last
/// decides. What was sent before it may be answered, but nobody waits for that any more.
///
/// Threads  one at a time.
class Unanswered_Requests {
public:
    /// False when the request was never sent, or is lost as far as can be told.
    bool may_be_answered(const std::string& text, const ZAV_MSG_Q& requests);

    /// @param subject  what the request is about; empty: nothing that others are about
    void sent(const std::string& text, const std::string& subject, const ZAV_MSG_Q& requests);

    void answered(const std::string& text) { sent_.erase(text); }

private:
    using Clock = std::chrono::steady_clock;

    struct Queue_State {
        int id = -1;
        pid_t server = 0;         // who took a request last; 0: nobody, or not visible from here
        time_t took_last = 0;     // when, in seconds of the wall clock
        std::size_t waiting = 0;  // how many there are
    };
    struct Sent {
        std::string subject;
        Clock::time_point at;
        time_t at_wall_clock = 0;
        Queue_State queue{};
        int times = 0;  // in a row

        // When it was noticed.
        std::optional<Clock::time_point> taken_at;
        std::optional<Clock::time_point> other_server_at;
    };

    static Queue_State state_of(const ZAV_MSG_Q& queue);
    static Clock::time_point noticed(std::optional<Clock::time_point>& event,
                                     Clock::time_point now);
    static bool is_still_waiting(const Sent& sent, const Queue_State& now);

    std::map<std::string, Sent> sent_;
};

}  // namespace zav_shm
