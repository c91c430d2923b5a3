// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "frame/frame_subscriber.h"
#include "frame/received_frame.h"

namespace zav_shm {

/// The bounded queue between the thread that takes frames and the application. Buffers move with
/// their frames, and those that come free are used again, the latest first: as few go round as
/// frames ever waited at once.
///
/// Threads  whoever has the turn to take frames pushes, the application pops, any closes.
class Frame_Queue {
public:
    struct Limits {
        std::size_t frames;  // 1 at least
        std::size_t bytes;   // of payload; a single frame always fits
        Overflow_Policy overflow;
    };

    explicit Frame_Queue(const Limits& limits);

    /// Puts the frame in, or drops it or others; never waits. `frame` gets some buffer back.
    ///
    /// @return how many frames were dropped by this.
    std::uint64_t push(Received_Frame& frame);

    /// Instead of push() and then pop(), for a frame that would be the only one and the next.
    ///
    /// @return false when it has to be pushed.
    bool let_pass(const Received_Frame& frame);

    /// Takes the oldest frame, waiting up to `timeout` for one.
    Receive_Status pop(Received_Frame& frame, std::chrono::milliseconds timeout);

    /// Empties the queue and ends waits: pop() returns `closed` until open().
    void close();
    void open();

    std::size_t size() const;

private:
    /// What frames that are not handed out leave to the next one that is.
    struct Gap {
        std::uint64_t lost = 0;
        std::uint64_t dropped = 0;
        std::uint64_t skipped = 0;
        bool epoch_changed = false;

        void swallow(const Received_Frame& frame);
        void leave_to(Received_Frame& frame);
    };

    bool is_full_for(const Received_Frame& frame) const;
    std::uint64_t drop_oldest();
    std::uint64_t drop_all();
    std::uint64_t make_room(const Received_Frame& frame);
    void keep(std::vector<std::byte>&& buffer);
    std::vector<std::byte> spare_buffer();
    std::size_t index(std::size_t position) const { return (first_ + position) % ring_.size(); }

    const Limits limits_;
    mutable std::mutex mutex_;  // guards all below
    std::condition_variable changed_;
    std::vector<Received_Frame> ring_;
    std::vector<std::vector<std::byte>> spare_;  // buffers, of no more than limits_.bytes in all
    std::size_t spare_bytes_ = 0;
    std::size_t first_ = 0;
    std::size_t count_ = 0;
    std::size_t bytes_ = 0;
    Gap before_first_;  // of frames dropped from the front
    Gap before_next_;   // of frames that were not let in
    bool waits_for_key_ = false;
    bool seen_key_ = false;
    bool closed_ = true;
};

}  // namespace zav_shm
