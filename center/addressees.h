// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>

namespace zav_shm {

/// Whom the center has sent replies, and which of these are gone.
///
/// A reply is addressed by the process id that the request names, which is the client's own view of
/// itself: in another PID namespace, as in a container, it is not the id by which the center could
/// ask for that process. So an addressee lives as long as any process that is visible from here has
/// that id, here or in its own namespace.
///
/// Where the center itself is in a namespace from which not all clients are visible, that is not
/// known of those. The kernel tells whether there are any (ZAV_MSG_Q::last_sender); then an
/// addressee is gone only when it has not been sent a reply for some seconds, too: whoever waits
/// for one takes it at once.
///
/// Threads  one at a time.
class Addressees {
public:
    using Clock = std::chrono::steady_clock;

    /// Notes who sent a request; nothing: that cannot be told.
    void request_comes_from(std::optional<pid_t> sender) {
        some_are_out_of_sight_ = some_are_out_of_sight_ || sender == 0;
    }

    /// Notes that a reply was sent.
    void replied(long addressee, Clock::time_point now = Clock::now()) {
        last_reply_[addressee] = now;
    }

    /// Calls `discard` for each addressee that is gone, and forgets it. Where there are any that
    /// are not in the center's own namespace, it takes some milliseconds.
    void discard_gone(const std::function<void(long addressee)>& discard,
                      Clock::time_point now = Clock::now());

    /// Forgets those that have no reply waiting, when there are very many.
    void forget_all_but(const std::function<bool(long addressee)>& has_reply);

    void clear() { last_reply_.clear(); }

private:
    std::map<long, Clock::time_point> last_reply_;
    bool some_are_out_of_sight_ = false;
};

}  // namespace zav_shm
