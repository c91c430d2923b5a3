// SPDX-License-Identifier: Apache-2.0
//
// Frames per second, cost and latency of the whole path: producer process, relay process and
// consumer processes, through real segments and semaphores, beside what the machine allows.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
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

// The time of a cell is split into that many rounds, in which the layers take turns: a disturbance
// of the machine does not decide a figure, and where the scheduler puts the processes of one run,
// which it seldom changes, does not decide a comparison.
constexpr int rounds = 5;

constexpr double paced_share = 5.0 / 3.0;  // of --seconds
constexpr double limit_seconds = 0.5;

/// Both parts of a cell, each of them over all rounds.
struct Cell_Figures {
    std::vector<double> frames_per_second;
    std::vector<double> cpu_us_per_frame;
    std::vector<double> switches_per_frame;
    std::vector<std::uint64_t> missed;  // per consumer, at full rate
    std::uint64_t dropped = 0;          // at full rate
    std::vector<std::int64_t> paced_latencies_ns;
    std::vector<std::uint64_t> paced_missed;
    std::uint64_t paced_dropped = 0;
    std::uint64_t torn = 0;      // of both
    std::uint64_t repeated = 0;  // of both
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

void add(const std::vector<std::uint64_t>& counts, std::vector<std::uint64_t>& sums) {
    sums.resize(counts.size());
    std::transform(counts.begin(), counts.end(), sums.begin(), sums.begin(), std::plus<>());
}

void add_full_rate_run(const Relay_Result& run, Cell_Figures& figures) {
    figures.frames_per_second.push_back(run.frames_per_second);
    figures.cpu_us_per_frame.push_back(run.cpu_us_per_frame);
    figures.switches_per_frame.push_back(run.switches_per_frame);
    add(run.missed, figures.missed);
    figures.dropped += run.dropped;
    figures.torn += run.torn;
    figures.repeated += run.repeated;
}

void add_paced_run(const Relay_Result& run, Cell_Figures& figures) {
    figures.paced_latencies_ns.insert(figures.paced_latencies_ns.end(), run.latencies_ns.begin(),
                                      run.latencies_ns.end());
    add(run.missed, figures.paced_missed);
    figures.paced_dropped += run.dropped;
    figures.torn += run.torn;
    figures.repeated += run.repeated;
}

bool measure_round(std::size_t payload_bytes, int consumers, Layer layer,
                   const Relay_Bench_Options& options, Cell_Figures& figures) {
    const double seconds = options.seconds / rounds;
    const auto full_rate =
        run_relay_cell({payload_bytes, consumers, 0, seconds, options.placement, layer});
    if (!full_rate) {
        return false;
    }
    const auto paced = run_relay_cell({payload_bytes, consumers, options.paced_fps,
                                       seconds * paced_share, options.placement, layer});
    if (!paced) {
        return false;
    }
    add_full_rate_run(*full_rate, figures);
    add_paced_run(*paced, figures);
    return true;
}

/// @return per layer, in the order of the options; nothing when a run failed.
std::vector<Cell_Figures> measure(std::size_t payload_bytes, int consumers,
                                  const Relay_Bench_Options& options) {
    std::vector<Cell_Figures> figures(options.layers.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < figures.size(); ++i) {
            if (!measure_round(payload_bytes, consumers, options.layers[i], options, figures[i])) {
                return {};
            }
        }
    }
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
    table.row({name_of(layer), std::to_string(payload_bytes), std::to_string(consumers),
               fixed(rate, 0), range(figures.frames_per_second),
               fixed(rate * static_cast<double>(payload_bytes) / 1e6, 0),
               fixed(median(figures.cpu_us_per_frame), 1),
               fixed(median(figures.switches_per_frame), 1), joined(figures.missed),
               std::to_string(figures.dropped), std::to_string(figures.torn),
               std::to_string(figures.repeated), microseconds(figures.paced_latencies_ns, 50),
               microseconds(figures.paced_latencies_ns, 99),
               microseconds(figures.paced_latencies_ns, 100), joined(figures.paced_missed),
               std::to_string(figures.paced_dropped)});
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
            const auto figures = measure(bytes, consumers, options);
            if (figures.empty()) {
                return EXIT_FAILURE;
            }
            for (std::size_t i = 0; i < figures.size(); ++i) {
                print_cell(table, bytes, consumers, options.layers[i], figures[i]);
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
