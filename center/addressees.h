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
/// ask for that process. The kernel tells who really sent a request, if no other one was waiting
/// behind it (ZAV_MSG_Q::last_sender), and which id that process has for itself.
///
///   the sender is ...                     the addressee is gone when
///   known by the id that it names         there is no process of this id
///   known by another id                   there is no process of that other id
///   not visible from here, or unknown     it has not been sent a reply for some seconds: whoever
///                                         waits for one takes it at once
///
/// As long as no client of another namespace was seen, an unknown sender is taken for one that is
/// known by the id that it names.
///
/// Threads  one at a time.
class Addressees {
public:
    using Clock = std::chrono::steady_clock;

    /// Notes who sent the request that is being served; nothing: that cannot be told.
    void request_comes_from(std::optional<pid_t> sender) { sender_ = sender; }

    /// Notes that a reply was sent.
    void replied(long addressee, Clock::time_point now = Clock::now());

    /// Calls `discard` for each addressee that is gone, and forgets it.
    void discard_gone(const std::function<void(long addressee)>& discard,
                      Clock::time_point now = Clock::now());

    /// Forgets those that have no reply waiting, when there are very many.
    void forget_all_but(const std::function<bool(long addressee)>& has_reply);

    void clear() { known_.clear(); }

private:
    enum class Sight { unknown, here, out_of_sight };
    struct Addressee {
        Sight sight = Sight::unknown;
        pid_t process = 0;  // the id by which it is known here, with Sight::here
        Clock::time_point last_reply{};
    };

    void look_for(long addressee, Addressee& found);
    bool is_gone(long addressee, const Addressee& entry, Clock::time_point now) const;

    std::optional<pid_t> sender_;
    std::map<long, Addressee> known_;
    bool has_seen_other_namespaces_ = false;
};

}  // namespace zav_shm
