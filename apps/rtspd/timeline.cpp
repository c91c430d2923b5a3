// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/timeline.h"

#include <algorithm>

namespace zav_shm::rtspd {

namespace {

constexpr std::int64_t shortest_step_ns = 1'000'000;
constexpr std::int64_t longest_pause_ns = 3'600'000'000'000;

// The distance may be beyond the type: whoever gets a wrong one finds it too long, or uses it, and
// nothing worse comes of a time than a wrong time.
std::int64_t distance(std::int64_t to, std::int64_t from) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(to) -
                                     static_cast<std::uint64_t>(from));
}

}  // namespace

std::int64_t Timeline::place(std::int64_t pts_ns, std::int64_t written_ns, bool is_new) {
    const std::int64_t step = distance(pts_ns, last_pts_ns_);
    const std::int64_t pause = distance(written_ns, last_written_ns_);
    if (has_begun_) {
        const bool goes_on = !is_new && step != 0 && step >= -step_max_ns && step <= step_max_ns;
        last_ns_ = goes_on ? last_ns_ + step
                           : latest_ns_ + std::clamp(pause, shortest_step_ns, longest_pause_ns);
    }
    has_begun_ = true;
    last_pts_ns_ = pts_ns;
    last_written_ns_ = written_ns;
    latest_ns_ = std::max(latest_ns_, last_ns_);
    return last_ns_;
}

}  // namespace zav_shm::rtspd
