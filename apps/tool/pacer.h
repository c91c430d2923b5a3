// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>

#include "apps/tool/rate.h"
#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// Holds each frame back until it is due. Every frame's moment is counted from the first one's by
/// the steady clock, so a late frame does not delay those behind it and nothing drifts. Only after
/// a stop of more than a second (SIGSTOP, a suspended device) the schedule moves, instead of a
/// second's worth of frames coming at once.
class Pacer {
public:
    using Clock = std::chrono::steady_clock;

    explicit Pacer(const Rate& rate) : rate_(rate) {}

    /// Waits until the frame with this number, from 0, is due.
    ///
    /// @return false when a signal came first.
    bool wait_for(std::uint64_t number, const Stop_Signal& stop);

    /// Likewise until a frame is due that comes so long after the time 0, which may be before it.
    bool wait_for(std::chrono::nanoseconds time, const Stop_Signal& stop);

    /// The frame's moment; the first call to wait_for() or due() is the beginning.
    Clock::time_point due(std::uint64_t number, Clock::time_point now);
    Clock::time_point due(std::chrono::nanoseconds time, Clock::time_point now);

private:
    static constexpr std::chrono::seconds late_max{1};

    const Rate rate_;
    bool begun_ = false;
    Clock::time_point begin_{};
};

}  // namespace zav_shm::tool
