// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "frame/received_frame.h"

namespace zav_shm::tool {

/// How far back before a trigger the frames of an event reach, and how long a history would have to
/// be for what is asked for. Times are in nanoseconds of CLOCK_MONOTONIC.
class Event_History {
public:
    /// @param before  how far back is asked for
    Event_History(std::int64_t trigger_ns, std::chrono::nanoseconds before)
        : trigger_ns_(trigger_ns), before_(before) {}

    /// Takes a frame of the event into account. Each one, from the first on.
    void note(const Frame_Facts& frame);

    /// From the first frame to the trigger; negative when the first one came later.
    std::chrono::nanoseconds reach() const;

    /// True once all frames from before the trigger were noted, so that shortfall() is final.
    bool is_known() const { return is_known_; }

    /// In words, what was there instead of what was asked for, and what would be needed; empty when
    /// nothing is missing.
    std::string shortfall() const;

    /// The history in bytes that would hold it at the present bit rate; nothing when too few frames
    /// were there to tell the rate from.
    std::optional<std::uint64_t> bytes_needed() const;

private:
    const std::int64_t trigger_ns_;
    const std::chrono::nanoseconds before_;
    bool has_first_ = false;
    bool is_known_ = false;
    bool is_foreign_ = false;     // no time of publication
    bool is_from_begin_ = false;  // the first frame is the first of its history
    std::int64_t first_ns_ = 0;
    std::int64_t last_ns_ = 0;      // of those before the trigger
    std::int64_t last_key_ns_ = 0;  // likewise
    std::int64_t longest_key_interval_ns_ = 0;
    std::uint64_t frames_ = 0;  // before the trigger
    std::uint64_t bytes_ = 0;   // likewise, as they take room in the history
};

}  // namespace zav_shm::tool
