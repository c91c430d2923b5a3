// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "frame/link/control_exchange.h"

namespace zav_shm {

/// A channel end that has, or reads, a ring.
struct Channel_End {
    const char* type = nullptr;  // a word of control::type
    std::string name;
    std::string producer;  // whose frames a consumer wants; a producer leaves it empty
    int channel = 0;
    int stream = 0;
    std::string folder = "/shm";  // of the segments, while no center has said another one
    std::string card;             // of a consumer: the file that it keeps locked

    std::string title() const;  // "CAM_LOOP/0/1"
};

/// One channel end's exchanges with the center, each in bounded time, and what tells that what was
/// granted has become worthless because another center has come.
///
/// Threads  used by one thread at a time.
class Center_Link {
public:
    enum class Outcome { granted, refused, no_center };

    /// What the center answered, and what it made for this end.
    struct [[nodiscard]] Registration {
        Outcome outcome = Outcome::no_center;
        std::string reason;  // one line when not granted

        std::string segment;  // names of slot and semaphores
        std::string sem_src;
        std::string sem_dst;
        std::string sem_exist;
        std::size_t page_bytes = 0;     // told to a producer
        std::size_t history_bytes = 0;  // the same

        explicit operator bool() const { return outcome == Outcome::granted; }
    };

    /// How frames come to a consumer. A producer has a ring in any case.
    enum class Way {
        ring,  // it reads the ring, and is in no relay
        relay  // it takes them off the slot; refused while another process does for this consumer
    };

    Center_Link(Channel_End end, Way way);

    Registration register_end(std::chrono::milliseconds limit);

    /// Moves a consumer to another producer, or to none with "NONE"; remembered when granted. One
    /// that is not answered may be served any time: then the route page tells.
    Registration pair(const std::string& producer, std::chrono::milliseconds limit);

    /// Somebody else has paired it.
    void follow(const std::string& producer) { end_.producer = producer; }

    void deregister_end(std::chrono::milliseconds limit);

    /// True when what was granted is not what the names lead to now: another center has replaced
    /// it. A few system calls.
    bool is_stale() const;

    /// True when no center runs, as far as its page tells.
    bool center_is_gone() const;

    /// True once a center answers that has come up since the latest attempt to register.
    bool center_has_come() const;

    /// False where the center has no page: then nothing tells that it has been restarted.
    bool has_page() const { return epoch_of_center() != 0; }

    const Channel_End& end() const { return end_; }
    const std::string& folder() const { return end_.folder; }

private:
    Registration read(const Control_Exchange::Answer& answer);
    Json::Value request(const char* command) const;
    void remember(const Registration& made);
    std::uint64_t epoch_of_center() const;  // 0 without a page

    Channel_End end_;
    const Way way_;
    std::string semaphore_file_;  // the first one's file, and what it was at registration
    ino_t semaphore_ = 0;
    std::uint64_t epoch_ = 0;        // of the center; 0 while it is unknown
    std::uint64_t tried_epoch_ = 0;  // of the center at the latest attempt; 0 when there was none
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
