// SPDX-License-Identifier: Apache-2.0
#pragma once

// The same roles as in frame_processes.h, with the safe layer: a center, a publisher, subscribers.

#include <cstddef>
#include <cstdint>
#include <span>

#include "bench/frame_processes.h"

namespace zav_shm::bench {

/// Builds a center with one producer and that many consumers, and serves until told to quit.
int run_center(std::size_t payload_bytes, int consumers, Run_Control& control);

/// @param in_place  writes into the slot and makes no copy; otherwise publishes a payload
int publish_frames(std::size_t payload_bytes, int frames_per_second, bool in_place,
                   Run_Control& control);

/// @param in_place  reads in the slot and makes no copy; otherwise receives from the queue
int subscribe_frames(int consumer, bool in_place, std::span<std::int64_t> latencies_ns,
                     Run_Control& control);

}  // namespace zav_shm::bench
