// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <chrono>
#include <functional>
#include <string>

namespace zav_shm {

/// One bounded exchange with the center, from any thread of the process.
///
/// Replies are addressed by process id only, so the exchanges of a process run one after the other,
/// and each first takes off what an earlier one, or an earlier process of this id, left behind.
///
/// Blocking the time given, waiting for another thread's exchange included.
/// Errors   are values; nothing is printed and nothing throws.
/// Crash    a request that was sent is served all the same.
class Control_Exchange {
public:
    enum class Outcome {
        replied,    // the reply may still be a refusal
        no_center,  // no queue, or no answer within the time
        failed      // the queue cannot be used, for instance for want of the right
    };

    struct [[nodiscard]] Answer {
        Outcome outcome = Outcome::no_center;
        Json::Value reply;    // an object when replied
        std::string problem;  // one line when not replied

        /// The reply's "status" is "success".
        bool granted() const;

        /// The reply's "reason", or the problem.
        std::string reason() const;
    };

    /// Tells whether a reply that is one to such a request (reply_judge.h) is the one wanted.
    using Judge = std::function<bool(const Json::Value& reply)>;

    /// Sends the request, to which "pid" is added, and waits for the reply that belongs to it: one
    /// of the same "command" whose names are those asked for, and that the judge, if there is one,
    /// accepts. A center that starts throws away what has waited for it: then the request is sent
    /// again, while there is time.
    static Answer ask(Json::Value request, std::chrono::milliseconds limit,
                      const Judge& judge = nullptr);

    /// Sends a request to which the center gives no reply ("kick_idle", "query_status"), and again
    /// as ask() does.
    ///
    /// @return replied when the center took it off the queue, with a null reply.
    static Answer tell(Json::Value request, std::chrono::milliseconds limit);
};

}  // namespace zav_shm
