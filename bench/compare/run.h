// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "bench/compare/load.h"
#include "bench/compare/transport.h"

namespace zav_shm::bench::compare {

/// What one run came to.
struct Run_Result {
    double start_seconds = 0;  // from the first process until every consumer had frames

    // Of the middle stretch of the run, in which nothing starts or ends.
    double frames_per_second = 0;  // at each consumer, in the mean
    double cpu_s_per_1000 = 0;     // of all processes, per 1,000 frames that reached a consumer

    // User and system time per second.
    double producers_cpu = 0;
    double consumers_cpu = 0;
    double broker_cpu = 0;
    double all_cpu = 0;

    // Of the whole run. A frame counts once per consumer.
    std::uint64_t offered = 0;  // what the producers had, sent or not, times the consumers
    std::uint64_t lost = 0;     // of these, what did not arrive
    std::uint64_t torn = 0;     // handed out as whole, and made of two frames

    std::vector<std::int64_t> latencies_ns;  // of all consumers; not at full rate

    // Of the first consumer while the last one was stopped.
    std::uint64_t healthy_frames = 0;
    double greatest_gap_ms = 0;
};

/// Runs the load in new processes and waits for all of them.
///
/// @return nothing when a process failed or no frame came through; the reason is on standard
///         error.
std::optional<Run_Result> run_load(const Transport& transport, const Load& load);

}  // namespace zav_shm::bench::compare
