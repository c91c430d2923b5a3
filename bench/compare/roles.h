// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "bench/compare/load.h"
#include "bench/compare/run_page.h"
#include "bench/compare/transport.h"

namespace zav_shm::bench::compare {

/// Where the consumer of that stream notes the ages of its frames; empty at full rate.
using Latency_Area = std::function<std::span<std::int64_t>(int stream)>;

/// The body of a camera's process: a publisher per stream, each on a thread. Uncounted frames until
/// the page says that counting begins, then the load, then uncounted frames again until it is told
/// to leave, so that no consumer has to wait for its last one.
///
/// @return the exit status
int run_producer(const Transport& transport, const Load& load, int camera, Run_Page& page);

/// The body of a consumer process: a subscriber per stream of that camera, each on a thread.
///
/// @return the exit status
int run_consumer(const Transport& transport, const Load& load, int camera, int number,
                 const Latency_Area& latencies, Run_Page& page);

}  // namespace zav_shm::bench::compare
