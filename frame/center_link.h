// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "frame/control_exchange.h"

namespace zav_shm {

/// One channel end's standing with the center: registers it in bounded time, and tells when the
/// registration has become worthless because a restarted center replaced the semaphores.
///
/// Threads  used by one thread at a time.
class Center_Link {
public:
    enum class Outcome { registered, refused, no_center };

    struct [[nodiscard]] Registration {
        Outcome outcome = Outcome::no_center;
        std::string reason;  // one line when not registered

        // Names of what the center made for this end.
        std::string segment;
        std::string sem_src;
        std::string sem_dst;
        std::string sem_exist;

        // Made by another center than what was registered before: its semaphores are others.
        bool is_of_another_center = false;

        explicit operator bool() const { return outcome == Outcome::registered; }
    };

    /// @param type      a word of control::type
    /// @param producer  whose frames a consumer wants; a producer leaves it empty
    Center_Link(const char* type, std::string name, std::string producer, int channel, int stream);

    Registration register_end(std::chrono::milliseconds limit);

    /// Moves a consumer to another producer, and remembers it when the center has granted that. A
    /// producer that does not have this channel and stream is refused here: the center would take
    /// the consumer away from its present one and call that a success.
    Registration pair(const std::string& producer, std::chrono::milliseconds limit);

    /// True when pair() got no answer: the center may serve it any time, and feed this consumer
    /// from a producer that is not the one remembered.
    bool is_in_doubt() const { return in_doubt_; }

    /// Ends the doubt by asking for the producer that is remembered, behind what is unanswered. The
    /// answer may also come to a later call.
    Registration settle(std::chrono::milliseconds limit);

    /// Looks up which producer feeds this consumer, and remembers it.
    ///
    /// @param segment  of the slot that is read
    /// @return the segment to read instead; empty when that is the right one, or nobody can tell.
    std::string follow_pairing(const std::string& segment);

    void deregister_end(std::chrono::milliseconds limit);

    /// True when what was registered is not what the names lead to now: another center has
    /// replaced it. A few system calls; meant for when no frame has passed for a while.
    bool is_stale() const;

    /// True when the host that wrote the page of the center is gone, or there is no page any more.
    bool center_is_gone() const;

    /// True once a center answers that has come up since the last attempt to register. Looks at
    /// its page, at most every 50 ms; while nobody has registered yet at the usual place.
    bool center_has_come();

    /// Sleeps until then, or until a center has come.
    void wait_for_center(std::chrono::steady_clock::time_point until);

    /// Whose slot the center granted last; before that, the one that was wanted.
    const std::string& producer() const { return producer_; }

private:
    Registration read(const Control_Exchange::Answer& answer);
    Registration ask_for_pairing(const std::string& producer, std::chrono::milliseconds limit);
    std::optional<Registration> problem_of_pairing(const std::string& producer,
                                                   std::chrono::milliseconds limit);
    std::string end_name() const;
    Json::Value request(const char* command) const;
    void remember(const Registration& made);
    std::uint64_t epoch_of_center() const;  // 0 without a page

    const char* type_;
    const std::string name_;
    std::string producer_;
    bool has_left_ = false;  // the former producer, for a registration that is unanswered
    bool in_doubt_ = false;
    const int channel_;
    const int stream_;

    std::string folder_ = "/shm";  // of the segments, as in their names; where the page lies
    std::string semaphore_file_;   // the first one's file, and what it was at registration
    ino_t semaphore_ = 0;
    std::uint64_t epoch_ = 0;        // of the center; 0 while it is unknown
    std::uint64_t tried_epoch_ = 0;  // of the center at the last attempt; 0 when there was none
    std::chrono::system_clock::time_point granted_at_{};  // as the files of the center are dated
    std::chrono::steady_clock::time_point next_look_{};
};

/// Delays between attempts: each twice the former, up to a greatest one.
class Backoff {
public:
    using Clock = std::chrono::steady_clock;

    Backoff(std::chrono::milliseconds first, std::chrono::milliseconds greatest)
        : first_(first), greatest_(greatest) {}

    bool is_due() const { return Clock::now() >= next_; }
    Clock::time_point next() const { return next_; }
    void failed();
    void reset();

private:
    const std::chrono::milliseconds first_;
    const std::chrono::milliseconds greatest_;
    std::chrono::milliseconds delay_{0};
    Clock::time_point next_{};
};

}  // namespace zav_shm
