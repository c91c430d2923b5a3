// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/replay_clock.h"

#include <algorithm>

namespace zav_shm::tool {

namespace {

using std::chrono::nanoseconds;

// What a damaged clock of a device may have written is never waited for to its end, but it must
// not overflow either.
constexpr double offset_max_ns = 1e9 * 3600 * 24 * 366;

}  // namespace

Replay_Clock::Clock::time_point Replay_Clock::due(std::int64_t moment_ns, Clock::time_point now) {
    if (speed_ <= 0) {
        return now;
    }
    if (!begun_) {
        begun_ = true;
        first_ns_ = moment_ns;
        begin_ = now;
    }
    const auto since = static_cast<double>(static_cast<std::uint64_t>(moment_ns) -
                                           static_cast<std::uint64_t>(first_ns_));
    const nanoseconds offset(static_cast<std::int64_t>(std::min(since / speed_, offset_max_ns)));
    if (now - (begin_ + offset) > late_max) {
        begin_ = now - offset;
    }
    return begin_ + offset;
}

}  // namespace zav_shm::tool
