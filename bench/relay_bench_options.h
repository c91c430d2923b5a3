// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "bench/placement.h"
#include "bench/relay_cell.h"

namespace zav_shm::bench {

struct Relay_Bench_Options {
    double seconds = 5;  // at full rate per cell; the paced part takes 5/3 of it
    int paced_fps = 30;  // frames per second of the paced part, which latency is taken from
    std::vector<std::size_t> payload_bytes{4U << 10, 64U << 10, 256U << 10, 1U << 20};
    std::vector<int> consumers{1, 2, 4};
    Placement placement = Placement::free;
    std::vector<Layer> layers{Layer::base};
    bool csv = false;
};

/// Reads the command line.
///
/// @return nothing when the program is to end at once with `exit_status`: after --help, or
///         after a bad option, which is named on standard error.
std::optional<Relay_Bench_Options> read_options(int argc, char** argv, int& exit_status);

}  // namespace zav_shm::bench
