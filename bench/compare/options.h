// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zav_shm::bench::compare {

struct Options {
    double seconds = 6;  // per cell and system at 30 frames per second, all rounds together
    int rounds = 3;
    std::vector<std::size_t> payload_bytes{4U << 10, 64U << 10, 256U << 10, 1U << 20};
    std::vector<int> consumers{1, 2, 4};
    double stopped_seconds = 3;  // in each round
    int device_cameras = 17;
    std::vector<int> device_consumers{1, 3};
    double limit_seconds = 0.3;  // for each limit of the machine
    std::string only;            // a part of a system's name; all when empty
    std::string part;            // a name of Part; all when empty
    std::string csv_file;        // none when empty
};

/// Reads the command line.
///
/// @return nothing when the program is to end at once with `exit_status`: after --help, or
///         after a bad option, which is named on standard error.
std::optional<Options> read_options(int argc, char** argv, int& exit_status);

}  // namespace zav_shm::bench::compare
