// SPDX-License-Identifier: Apache-2.0
//
// Frames per second, cost and latency of the whole path: producer process, relay process and
// consumer processes, through real segments and semaphores, beside what the machine allows.

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "bench/bench_channel.h"
#include "bench/machine_limits.h"
#include "bench/percentile.h"
#include "bench/private_namespaces.h"
#include "bench/relay_bench_options.h"
#include "bench/relay_cell.h"
#include "bench/table.h"

namespace {

using namespace zav_shm::bench;

// The full-rate time of a cell is split into that many runs, so that one disturbance of the
// machine does not decide the figure.
constexpr int full_rate_runs = 3;

constexpr double paced_share = 5.0 / 3.0;  // of --seconds
constexpr double limit_seconds = 0.5;

/// Both parts of a cell: the full-rate runs summed up, and the paced run.
struct Cell_Figures {
    std::vector<double> frames_per_second;
    std::vector<double> cpu_us_per_frame;
    std::vector<double> switches_per_frame;
    std::vector<std::uint64_t> missed;  // per consumer, over all full-rate runs
    std::uint64_t dropped = 0;
    std::uint64_t torn = 0;      // over all runs
    std::uint64_t repeated = 0;  // over all runs
    Relay_Result paced;
};

std::string joined(const std::vector<std::uint64_t>& counts) {
    std::string text;
    for (const std::uint64_t count : counts) {
        if (!text.empty()) {
            text += '/';
        }
        text += std::to_string(count);
    }
    return text;
}

std::string microseconds(const std::vector<std::int64_t>& values_ns, double percent) {
    return fixed(static_cast<double>(percentile(values_ns, percent)) / 1e3, 0);
}

void add_full_rate_run(const Relay_Result& run, Cell_Figures& figures) {
    figures.frames_per_second.push_back(run.frames_per_second);
    figures.cpu_us_per_frame.push_back(run.cpu_us_per_frame);
    figures.switches_per_frame.push_back(run.switches_per_frame);
    figures.missed.resize(run.missed.size());
    for (std::size_t i = 0; i < run.missed.size(); ++i) {
        figures.missed[i] += run.missed[i];
    }
    figures.dropped += run.dropped;
    figures.torn += run.torn;
    figures.repeated += run.repeated;
}

std::optional<Cell_Figures> measure(std::size_t payload_bytes, int consumers, Layer layer,
                                    const Relay_Bench_Options& options) {
    Cell_Figures figures;
    for (int i = 0; i < full_rate_runs; ++i) {
        const auto run =
            run_relay_cell({payload_bytes, consumers, 0, options.seconds / full_rate_runs,
                            options.placement, layer});
        if (!run) {
            return {};
        }
        add_full_rate_run(*run, figures);
    }
    const auto paced = run_relay_cell({payload_bytes, consumers, options.paced_fps,
                                       options.seconds * paced_share, options.placement, layer});
    if (!paced) {
        return {};
    }
    figures.paced = *paced;
    figures.torn += paced->torn;
    figures.repeated += paced->repeated;
    return figures;
}

std::vector<Table::Column> relay_columns(int paced_fps) {
    const std::string median_latency = std::to_string(paced_fps) + "fps p50";
    return {{"layer", 8},  {"bytes", 7},    {"consumers", 9},    {"frames/s", 8}, {"range", 13},
            {"MB/s", 5},   {"CPU us", 6},   {"switches", 8},     {"missed", 7},   {"dropped", 7},
            {"torn", 4},   {"repeated", 8}, {median_latency, 9}, {"p99", 5},      {"max us", 6},
            {"missed", 7}, {"dropped", 7}};
}

std::string range(const std::vector<double>& values) {
    return fixed(percentile(values, 0), 0) + "-" + fixed(percentile(values, 100), 0);
}

const char* name_of(Layer layer) {
    switch (layer) {
        case Layer::base:
            return "base";
        case Layer::safe:
            return "safe";
        case Layer::in_place:
            return "in place";
    }
    return "";
}

void print_cell(const Table& table, std::size_t payload_bytes, int consumers, Layer layer,
                const Cell_Figures& figures) {
    const double rate = median(figures.frames_per_second);
    const Relay_Result& paced = figures.paced;
    table.row({name_of(layer), std::to_string(payload_bytes), std::to_string(consumers),
               fixed(rate, 0), range(figures.frames_per_second),
               fixed(rate * static_cast<double>(payload_bytes) / 1e6, 0),
               fixed(median(figures.cpu_us_per_frame), 1),
               fixed(median(figures.switches_per_frame), 1), joined(figures.missed),
               std::to_string(figures.dropped), std::to_string(figures.torn),
               std::to_string(figures.repeated), microseconds(paced.latencies_ns, 50),
               microseconds(paced.latencies_ns, 99), microseconds(paced.latencies_ns, 100),
               joined(paced.missed), std::to_string(paced.dropped)});
}

void print_limits(const Relay_Bench_Options& options) {
    const Table table({{"limit of the machine", 40}, {"value", 10}, {"unit", 13}}, options.csv);
    for (const std::size_t bytes : options.payload_bytes) {
        const double rate = memcpy_in_and_out_mb_per_second(bytes, limit_seconds);
        table.row(
            {"memcpy in and out " + std::to_string(bytes) + " bytes", fixed(rate, 0), "MB/s"});
    }
    table.row({"named semaphores between two processes",
               fixed(semaphore_round_trips_per_second(limit_seconds, options.placement), 0),
               "round trips/s"});
    std::puts("");
}

int run(const Relay_Bench_Options& options) {
    print_limits(options);
    const Table table(relay_columns(options.paced_fps), options.csv);
    for (const std::size_t bytes : options.payload_bytes) {
        for (const int consumers : options.consumers) {
            for (const Layer layer : options.layers) {
                const auto figures = measure(bytes, consumers, layer, options);
                if (!figures) {
                    return EXIT_FAILURE;
                }
                print_cell(table, bytes, consumers, layer, *figures);
            }
        }
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    int exit_status = EXIT_SUCCESS;
    const auto options = read_options(argc, argv, exit_status);
    if (!options) {
        return exit_status;
    }
    if (!enter_private_namespaces()) {
        return EXIT_FAILURE;
    }
    if (!prepare_names()) {
        std::perror("/dev/shm/shm");
        return EXIT_FAILURE;
    }
    return run(*options);
}
