// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/compare/figures.h"
#include "bench/compare/plan.h"

namespace zav_shm::bench::compare {

struct System {
    std::string name;
    std::string copies;
};

/// What the machine allows: no system gets beyond it.
struct Machine_Limits {
    std::map<std::size_t, double> copy_us;  // of that many bytes in and out again
    double round_trip_us = 0;  // of two processes that wake each other, one hand-over each way
};

/// All that was measured.
struct Results {
    Machine_Limits limits;
    std::vector<System> systems;
    std::vector<Cell> cells;
    std::vector<std::vector<Figures>> figures;  // [cell][system]
};

/// Tables in Markdown, for people.
void print_tables(const Results& results, std::FILE* file);

/// A line for each cell and system, and before them the limits of the machine.
void print_csv(const Results& results, std::FILE* file);

}  // namespace zav_shm::bench::compare
