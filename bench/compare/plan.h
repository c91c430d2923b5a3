// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "bench/compare/load.h"
#include "bench/compare/options.h"

namespace zav_shm::bench::compare {

/// What a cell is about, and so which of its figures are shown.
enum class Part {
    paced,      // 30 frames per second: how old are the frames, what do they cost?
    full_rate,  // as fast as the system takes them, nothing to be lost
    stopped,    // 30 frames per second, and one of two consumers stopped
    device,     // a whole recorder: 17 cameras with two streams each
};

const char* name_of(Part part);

/// One load, which every system is put under in turn.
struct Cell {
    Part part = Part::paced;
    Load load;
};

/// All cells in the order of the run.
std::vector<Cell> plan(const Options& options);

}  // namespace zav_shm::bench::compare
