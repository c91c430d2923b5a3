// SPDX-License-Identifier: Apache-2.0
//
// Puts every system under every load, one after the other within a round, so that what else the
// machine is busy with hits all of them alike.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "bench/child_processes.h"
#include "bench/compare/options.h"
#include "bench/compare/plan.h"
#include "bench/compare/private_folder.h"
#include "bench/compare/report.h"
#include "bench/compare/run.h"
#include "bench/compare/transports.h"
#include "bench/machine_limits.h"
#include "bench/private_namespaces.h"

namespace {

using namespace zav_shm::bench;
using namespace zav_shm::bench::compare;

using Transports = std::vector<std::unique_ptr<Transport>>;

Transports chosen_transports(const Options& options) {
    Transports chosen;
    for (auto& transport : built_transports()) {
        if (transport->name().find(options.only) != std::string::npos) {
            chosen.push_back(std::move(transport));
        }
    }
    return chosen;
}

Machine_Limits machine_limits(const Options& options) {
    Machine_Limits limits;
    for (const std::size_t bytes : options.payload_bytes) {
        const double mb_per_second = memcpy_in_and_out_mb_per_second(bytes, options.limit_seconds);
        limits.copy_us[bytes] = static_cast<double>(bytes) / mb_per_second;
    }
    limits.round_trip_us =
        1e6 / semaphore_round_trips_per_second(options.limit_seconds, Placement::free);
    return limits;
}

void tell_progress(const Cell& cell, std::size_t number, std::size_t cells) {
    std::fprintf(stderr, "%zu of %zu: %s, %d camera(s), %zu bytes, %d consumer(s)\n", number, cells,
                 name_of(cell.part), cell.load.cameras, cell.load.payload_bytes,
                 cell.load.consumers);
}

std::vector<Figures> run_cell(const Transports& transports, const Cell& cell, int rounds) {
    std::vector<Figures> figures(transports.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < transports.size(); ++i) {
            if (auto result = run_load(*transports[i], cell.load)) {
                figures[i].add(std::move(*result));
            } else {
                figures[i].add_failure();
            }
        }
    }
    return figures;
}

void prepare(const Transports& transports) {
    Child_Processes children;
    for (const auto& transport : transports) {
        children.start(transport->name(), [&] {
            transport->prepare();
            return EXIT_SUCCESS;
        });
    }
    children.wait_all();
}

Results measure(const Transports& transports, const Options& options) {
    prepare(transports);
    Results results;
    results.limits = machine_limits(options);
    for (const auto& transport : transports) {
        results.systems.push_back({transport->name(), transport->copies()});
    }
    results.cells = plan(options);
    for (const Cell& cell : results.cells) {
        tell_progress(cell, results.figures.size() + 1, results.cells.size());
        results.figures.push_back(run_cell(transports, cell, options.rounds));
    }
    return results;
}

bool is_without_failures(const Results& results) {
    for (const auto& of_cell : results.figures) {
        for (const Figures& figures : of_cell) {
            if (figures.failures() > 0) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int exit_status = EXIT_SUCCESS;
    const auto options = read_options(argc, argv, exit_status);
    if (!options) {
        return exit_status;
    }
    const Transports transports = chosen_transports(*options);
    if (transports.empty()) {
        std::fprintf(stderr, "--only is \"%s\", which no system has in its name\n",
                     options->only.c_str());
        return EXIT_FAILURE;
    }
    // Before the private folder may hide where the file is.
    std::FILE* csv = nullptr;
    if (!options->csv_file.empty() &&
        (csv = std::fopen(options->csv_file.c_str(), "w")) == nullptr) {
        std::perror(options->csv_file.c_str());
        return EXIT_FAILURE;
    }
    if (!enter_private_namespaces() || !enter_private_folder()) {
        return EXIT_FAILURE;
    }
    const Results results = measure(transports, *options);
    print_tables(results, stdout);
    for (const std::string& line : left_out_transports()) {
        std::printf("\n%s\n", line.c_str());
    }
    if (csv != nullptr) {
        print_csv(results, csv);
        std::fclose(csv);
    }
    return is_without_failures(results) ? EXIT_SUCCESS : EXIT_FAILURE;
}
