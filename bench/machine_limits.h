// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "bench/placement.h"

namespace zav_shm::bench {

// What the machine itself allows: no relay can copy faster or wake a process sooner.

/// Payload bytes per second (in 1e6) that one thread copies in and out again, source to slot to
/// destination, in ordinary memory: each byte counts once and is copied twice.
double memcpy_in_and_out_mb_per_second(std::size_t payload_bytes, double seconds);

/// Round trips per second of two processes, placed as a relay and a client, that wake each other
/// through two named semaphores.
///
/// @return 0 when the semaphores or a process could not be made.
double semaphore_round_trips_per_second(double seconds, Placement placement);

}  // namespace zav_shm::bench
