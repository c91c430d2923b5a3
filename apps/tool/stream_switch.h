// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace zav_shm::tool {

/// Decides which of two streams of one picture goes out, so that what goes out can be decoded: a
/// change happens at a key frame or recovery point of the stream that is wanted, and until it comes
/// the other one goes on.
class Stream_Switch {
public:
    using Clock = std::chrono::steady_clock;

    /// @param every  time between two changes, counted from when the one before came about.
    Stream_Switch(std::chrono::milliseconds every, Clock::time_point begin)
        : every_(every), since_(begin) {}

    /// Offers a frame of stream 0 or 1; true when it is to go out.
    bool offer(std::size_t stream, bool is_entry, Clock::time_point now);

    std::size_t active() const { return active_; }
    std::uint64_t switches() const { return switches_; }

private:
    const std::chrono::milliseconds every_;
    Clock::time_point since_;
    std::size_t active_ = 0;
    std::uint64_t switches_ = 0;
};

}  // namespace zav_shm::tool
