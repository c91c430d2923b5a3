// SPDX-License-Identifier: Apache-2.0
#include "bench/relay_bench_options.h"

#include <array>
#include <cstdio>

#include "bench/command_line.h"
#include "bench/frame_processes.h"
#include "bench/frame_stamp.h"

namespace zav_shm::bench {

namespace {

constexpr double least_seconds = 2;
constexpr double most_seconds = 3600;
constexpr int most_paced_fps = 1000;
constexpr double most_payload_bytes = 64.0 * 1024 * 1024;

constexpr const char* usage =
    "Usage: bench_relay [--seconds N] [--size BYTES] [--consumers N] [--cpus WHERE] "
    "[--layers]\n"
    "                   [--fps N] [--csv]\n"
    "\n"
    "  --seconds N     time per cell at full rate, 5 by default; the paced part takes 5/3 of it\n"
    "  --size BYTES    one payload size instead of 4, 64, 256 and 1024 KiB\n"
    "  --consumers N   one number of consumer processes instead of 1, 2 and 4\n"
    "  --cpus WHERE    free: as the scheduler likes (default); one: all processes on one CPU;\n"
    "                  apart: the relay on a CPU without the others\n"
    "  --layers        beside the endpoints the safe layer, with copies and in place\n"
    "  --fps N         frames per second of the paced part, whose latency is told; 30 by default\n"
    "  --csv           comma-separated values\n";

bool placement(const char* text, Placement& chosen) {
    const auto known = placement_named(text);
    if (!known) {
        std::fprintf(stderr, "--cpus is \"%s\", but has to be free, one or apart\n", text);
        return false;
    }
    if (*known == Placement::apart && usable_cpus() < 2) {
        std::fprintf(stderr, "--cpus is \"apart\", but only one CPU may be used\n");
        return false;
    }
    chosen = *known;
    return true;
}

bool apply(int option, const char* text, Relay_Bench_Options& options) {
    std::optional<double> value;
    switch (option) {
        case 's':
            value = number_option("seconds", text, least_seconds, most_seconds);
            options.seconds = value.value_or(0);
            return value.has_value();
        case 'b':
            value = number_option("size", text, least_payload_bytes, most_payload_bytes);
            options.payload_bytes = {static_cast<std::size_t>(value.value_or(0))};
            return value.has_value();
        case 'c':
            value = number_option("consumers", text, 1, consumers_max);
            options.consumers = {static_cast<int>(value.value_or(0))};
            return value.has_value();
        case 'f':
            value = number_option("fps", text, 1, most_paced_fps);
            options.paced_fps = static_cast<int>(value.value_or(0));
            return value.has_value();
        case 'p':
            return placement(text, options.placement);
        case 'l':
            options.layers = {Layer::base, Layer::safe, Layer::in_place};
            return true;
        case 'v':
            options.csv = true;
            return true;
        default:
            return false;  // getopt has named it
    }
}

}  // namespace

std::optional<Relay_Bench_Options> read_options(int argc, char** argv, int& exit_status) {
    static const std::array<option, 9> known{{{"seconds", required_argument, nullptr, 's'},
                                              {"size", required_argument, nullptr, 'b'},
                                              {"consumers", required_argument, nullptr, 'c'},
                                              {"cpus", required_argument, nullptr, 'p'},
                                              {"fps", required_argument, nullptr, 'f'},
                                              {"layers", no_argument, nullptr, 'l'},
                                              {"csv", no_argument, nullptr, 'v'},
                                              {"help", no_argument, nullptr, 'h'},
                                              {}}};
    Relay_Bench_Options options;
    const auto apply_one = [&options](int letter, const char* text) {
        return apply(letter, text, options);
    };
    if (!read_command_line(argc, argv, known, usage, apply_one, exit_status)) {
        return {};
    }
    return options;
}

}  // namespace zav_shm::bench
