// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace zav_shm::rtspd {

/// Gives the frames of a stream times that go on when those of its publisher begin anew, jump, or
/// stand still: a client's clock is set once, by the first frame that it gets.
///
/// Threads  one.
class Timeline {
public:
    /// @param pts_ns      as the publisher says; any value
    /// @param written_ns  CLOCK_MONOTONIC when it was published; any value
    /// @param is_new      the first frame of another publisher
    /// @return the frame's time. Differences are those of `pts_ns`, unless these are beyond
    ///         `step_max_ns` or 0: then those of `written_ns`.
    std::int64_t place(std::int64_t pts_ns, std::int64_t written_ns, bool is_new);

    static constexpr std::int64_t step_max_ns = 10'000'000'000;

private:
    bool has_begun_ = false;
    std::int64_t last_pts_ns_ = 0;
    std::int64_t last_written_ns_ = 0;
    std::int64_t last_ns_ = 0;    // that place() returned
    std::int64_t latest_ns_ = 0;  // the greatest of them
};

}  // namespace zav_shm::rtspd
