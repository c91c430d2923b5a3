// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "frame/received_frame.h"

// When a frame was there. Times are in nanoseconds.

namespace zav_shm::tool {

/// By CLOCK_MONOTONIC: when its publisher began to write it, which is never later than it came
/// here; of a foreign producer's, when it came here.
std::int64_t moment_ns_of(const Frame_Facts& frame);

/// Since 1970: the time of capture that its publisher gives, or else moment_ns_of() by the wall
/// clock as it is set now.
std::int64_t utc_ns_of(const Frame_Facts& frame);

/// The wall clock now.
std::int64_t utc_now_ns();

}  // namespace zav_shm::tool
