// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "apps/rtspd/stream_address.h"
#include "apps/rtspd/stream_kind.h"
#include "apps/rtspd/timeline.h"
#include "apps/rtspd/unit_history.h"
#include "frame/frame_subscriber.h"

namespace zav_shm::rtspd {

/// The one reader of a stream's ring, whatever the number of its clients: takes frames out of the
/// ring as they come and keeps the newest for all of them. Clients share the bytes, and each has
/// its own way through them, a Place: who is slow waits for nobody and holds up nobody.
///
/// Owner    of a thread, "rtspd_hub", that reads; and of `bytes_max` of units at most.
/// Threads  all members from any.
/// Blocking as said.
/// Crash    nothing of it is shared with other processes: the ring is read, not written.
class Stream_Hub {
public:
    struct Options {
        Stream_Address address;
        std::string folder;       // of the segments
        std::size_t bytes_max{};  // that are kept; a frame may have half of it
    };

    explicit Stream_Hub(Options options);
    ~Stream_Hub();
    Stream_Hub(const Stream_Hub&) = delete;
    Stream_Hub& operator=(const Stream_Hub&) = delete;

    /// What a client is going to get. A format that changes is another run.
    struct Run {
        std::uint64_t number = 0;
        Stream_Kind kind;
        Unit first;  // that a client can begin with
    };

    /// Waits until there is something that a client can begin with.
    ///
    /// @return nothing when nothing came in time: trouble() tells why
    std::optional<Run> wait_for_picture(std::chrono::milliseconds limit);

    /// Where one client is.
    struct Place {
        std::uint64_t run = 0;
        std::uint64_t next = 0;         // number of the unit that it gets next; 0 before the first
        std::uint64_t passed_over = 0;  // units that it was too slow for
        bool is_gap = false;
        std::uint64_t history_end = 0;  // units below were there when the client came
        std::int64_t may_go_ns = 0;     // CLOCK_MONOTONIC: when the next of them goes out
    };

    enum class Read {
        unit,
        interrupted,  // by `interrupted` and wake()
        ended         // the run
    };

    /// Waits for the client's next unit: at first the newest at which a decoder may begin. What was
    /// there before the client comes at up to `history_bytes_per_second`, which leaves the buffers
    /// of networks and of clients over UDP room; the first unit, and all new ones, come at once.
    Read read(Place& place, Unit& unit, const std::atomic<bool>& interrupted);

    static constexpr std::int64_t history_bytes_per_second = 6'000'000;

    /// Makes all readers look at what interrupts them.
    void wake();

    const Stream_Address& address() const { return options_.address; }

    /// Why no units come, in one line; empty when they do.
    std::string trouble() const;

    struct Counters {
        std::uint64_t units = 0;
        std::uint64_t refused = 0;      // frames that cannot be sent
        std::uint64_t too_large = 0;    // frames beyond half of the history
        std::uint64_t passed_over = 0;  // units that clients were too slow for
    };
    Counters counters() const;

private:
    void read_ring();
    void take(const Received_Frame& frame);
    void refuse(const Received_Frame& frame, const std::string& reason);
    void publish(const Received_Frame& frame, const Stream_Unit& found);
    bool is_live() const;
    bool catches_up(Place& place);
    bool is_due(const Place& place) const;

    const Options options_;
    ZAV_SHM_Frame_Subscriber subscriber_;
    std::atomic<bool> stopping_{false};  // the destructor writes, the reading thread reads

    // The reading thread's own.
    Timeline timeline_;
    bool has_gap_ = false;

    // Held for a few instructions, by the reading thread and by those of the clients.
    mutable std::mutex mutex_;
    std::condition_variable news_;
    Unit_History history_;
    std::optional<Stream_Kind> kind_;
    std::uint64_t run_ = 0;
    std::int64_t newest_written_ns_ = 0;  // CLOCK_MONOTONIC
    std::string trouble_;
    Counters counters_;

    std::thread thread_;  // last: it uses all of the above
};

}  // namespace zav_shm::rtspd
