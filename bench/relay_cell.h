// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "bench/placement.h"

namespace zav_shm::bench {

/// What carries the frames.
enum class Layer {
    base,      // the endpoints, with a copy in and a copy out
    safe,      // publisher and subscribers, with copies and the subscriber's queue
    in_place,  // the same, written and read in the slot
};

/// What one run measures: a relay, a producer and consumers, each a process of its own.
struct Relay_Cell {
    std::size_t payload_bytes = 0;
    int consumers = 1;          // 1 .. consumers_max
    int frames_per_second = 0;  // 0: the producer sends as fast as it can
    double seconds = 0;
    Placement placement = Placement::free;
    Layer layer = Layer::base;
};

struct Relay_Result {
    double frames_per_second = 0;
    double cpu_us_per_frame = 0;    // user and system time of all processes
    double switches_per_frame = 0;  // of all processes
    std::uint64_t published = 0;
    std::uint64_t dropped = 0;
    std::uint64_t torn = 0;
    std::uint64_t repeated = 0;
    std::vector<std::uint64_t> missed;       // per consumer: published, but not received whole
    std::vector<std::int64_t> latencies_ns;  // of all consumers; at a given rate only
};

/// Runs the cell in new processes and waits for all of them.
///
/// @return nothing when a process failed or no frame came through; the reason is on standard
///         error.
std::optional<Relay_Result> run_relay_cell(const Relay_Cell& cell);

}  // namespace zav_shm::bench
