// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "bench/monotonic_clock.h"

namespace zav_shm::bench {

/// The moments at which frames are due. After a frame that took longer than its period the
/// schedule stays as it was: a camera does not wait either.
class Pace {
public:
    explicit Pace(int frames_per_second)
        : period_ns_(frames_per_second == 0 ? 0 : ns_per_second / frames_per_second),
          due_ns_(monotonic_ns()) {}

    void wait_for_next() {
        if (period_ns_ != 0) {
            due_ns_ += period_ns_;
            sleep_until_ns(due_ns_);
        }
    }

private:
    std::int64_t period_ns_;
    std::int64_t due_ns_;
};

}  // namespace zav_shm::bench
