// SPDX-License-Identifier: Apache-2.0
#include "bench/compare/options.h"

#include <array>
#include <cstdio>

#include "bench/command_line.h"
#include "bench/compare/frame_pattern.h"
#include "bench/compare/plan.h"
#include "bench/compare/run_page.h"

namespace zav_shm::bench::compare {

namespace {

constexpr double most_seconds = 3600;
constexpr double least_seconds = 0.3;
constexpr double most_rounds = 99;
constexpr double most_payload_bytes = 16.0 * 1024 * 1024;

constexpr const char* usage =
    "Usage: bench_compare [--seconds N] [--rounds N] [--only NAME] [--part NAME] [--quick]\n"
    "                     [--size BYTES] [--consumers N] [--csv FILE]\n"
    "\n"
    "Our publisher and subscriber beside other systems, each load under all systems in turn.\n"
    "Prints tables in Markdown.\n"
    "\n"
    "  --seconds N     time per cell and system at 30 frames per second, 6 by default; at full\n"
    "                  rate a third of it\n"
    "  --rounds N      runs into which that time is split, 3 by default: figures are medians\n"
    "  --only NAME     the systems whose name has NAME in it, as --only iceoryx\n"
    "  --part NAME     paced, full-rate, stopped or device instead of all four\n"
    "  --size BYTES    one payload size instead of 4, 64, 256 and 1024 KiB\n"
    "  --consumers N   one number of consumers, 1 to 4, instead of 1, 2 and 4\n"
    "  --quick         less than 40 seconds: one size, one round, 4 cameras instead of 17\n"
    "  --csv FILE      every figure, one line per cell and system\n";

bool is_part(const std::string& text) {
    for (const Part part : {Part::paced, Part::full_rate, Part::stopped, Part::device}) {
        if (text == name_of(part)) {
            return true;
        }
    }
    std::fprintf(stderr, "--part is \"%s\", but has to be paced, full-rate, stopped or device\n",
                 text.c_str());
    return false;
}

void make_quick(Options& options) {
    options.seconds = 0.45;
    options.rounds = 1;
    options.payload_bytes = {64U << 10};
    options.consumers = {2};
    options.stopped_seconds = 0.5;
    options.device_cameras = 4;
    options.device_consumers = {1};
    options.limit_seconds = 0.1;
}

bool apply_number(int option, const char* text, Options& options) {
    std::optional<double> value;
    switch (option) {
        case 's':
            value = number_option("seconds", text, least_seconds, most_seconds);
            options.seconds = value.value_or(0);
            break;
        case 'r':
            value = number_option("rounds", text, 1, most_rounds);
            options.rounds = static_cast<int>(value.value_or(1));
            break;
        case 'b':
            value = number_option("size", text, least_payload_bytes, most_payload_bytes);
            options.payload_bytes = {static_cast<std::size_t>(value.value_or(0))};
            break;
        case 'n':
            value = number_option("consumers", text, 1, most_consumers);
            options.consumers = {static_cast<int>(value.value_or(1))};
            break;
        default:
            break;  // getopt has named it
    }
    return value.has_value();
}

bool apply(int option, const char* text, Options& options) {
    switch (option) {
        case 'o':
            options.only = text;
            return true;
        case 'p':
            options.part = text;
            return is_part(options.part);
        case 'c':
            options.csv_file = text;
            return true;
        case 'q':
            make_quick(options);
            return true;
        default:
            return apply_number(option, text, options);
    }
}

}  // namespace

std::optional<Options> read_options(int argc, char** argv, int& exit_status) {
    static const std::array<option, 10> known{{{"seconds", required_argument, nullptr, 's'},
                                               {"rounds", required_argument, nullptr, 'r'},
                                               {"only", required_argument, nullptr, 'o'},
                                               {"part", required_argument, nullptr, 'p'},
                                               {"size", required_argument, nullptr, 'b'},
                                               {"consumers", required_argument, nullptr, 'n'},
                                               {"quick", no_argument, nullptr, 'q'},
                                               {"csv", required_argument, nullptr, 'c'},
                                               {"help", no_argument, nullptr, 'h'},
                                               {}}};
    Options options;
    const auto apply_one = [&options](int letter, const char* text) {
        return apply(letter, text, options);
    };
    if (!read_command_line(argc, argv, known, usage, apply_one, exit_status)) {
        return {};
    }
    return options;
}

}  // namespace zav_shm::bench::compare
