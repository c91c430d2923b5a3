// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>

#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// The sum, which is never undefined, whatever a trace says and however often it is replayed.
constexpr std::int64_t later_by(std::int64_t time_ns, std::chrono::nanoseconds later) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(time_ns) +
                                     static_cast<std::uint64_t>(later.count()));
}

/// When the frames of a trace are due. Every frame's moment is counted from the first one's by the
/// steady clock, so a late frame does not delay those behind it and nothing drifts. As with Pacer,
/// the schedule moves only after a stop of more than a second.
class Replay_Clock {
public:
    using Clock = Stop_Signal::Clock;

    /// @param speed  so many times as fast as it was; 0: everything is due at once
    explicit Replay_Clock(double speed) : speed_(speed) {}

    /// When what happened at `moment_ns` is due. The first call is the begin; later moments must
    /// not be earlier ones.
    Clock::time_point due(std::int64_t moment_ns, Clock::time_point now);

private:
    static constexpr std::chrono::seconds late_max{1};

    const double speed_;
    bool begun_ = false;
    std::int64_t first_ns_ = 0;
    Clock::time_point begin_{};
};

}  // namespace zav_shm::tool
