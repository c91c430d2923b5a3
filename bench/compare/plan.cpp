// SPDX-License-Identifier: Apache-2.0
#include "bench/compare/plan.h"

namespace zav_shm::bench::compare {

namespace {

constexpr int frames_per_second = 30;
constexpr double full_rate_share = 1.0 / 3.0;  // of --seconds: it makes its frames faster
constexpr std::size_t one_size_bytes = 64U << 10;
constexpr int stopped_consumers = 2;  // one of them healthy

bool is_wanted(const Options& options, Part part) {
    return options.part.empty() || options.part == name_of(part);
}

Load paced(std::size_t payload_bytes, int consumers, double seconds) {
    return {.payload_bytes = payload_bytes,
            .consumers = consumers,
            .frames_per_second = frames_per_second,
            .flow = Flow::drop,
            .seconds = seconds};
}

void add_sizes(const Options& options, std::vector<Cell>& cells) {
    const double seconds = options.seconds / options.rounds;
    for (const std::size_t bytes : options.payload_bytes) {
        for (const int consumers : options.consumers) {
            if (is_wanted(options, Part::paced)) {
                cells.push_back({Part::paced, paced(bytes, consumers, seconds)});
            }
            if (is_wanted(options, Part::full_rate)) {
                cells.push_back({Part::full_rate,
                                 {.payload_bytes = bytes,
                                  .consumers = consumers,
                                  .seconds = seconds * full_rate_share}});
            }
        }
    }
}

void add_device(const Options& options, std::vector<Cell>& cells) {
    for (const int consumers : options.device_consumers) {
        Load load = paced(one_size_bytes, consumers, options.seconds / options.rounds);
        load.cameras = options.device_cameras;
        load.streams = 2;
        cells.push_back({Part::device, load});
    }
}

}  // namespace

const char* name_of(Part part) {
    switch (part) {
        case Part::paced:
            return "paced";
        case Part::full_rate:
            return "full-rate";
        case Part::stopped:
            return "stopped";
        case Part::device:
            return "device";
    }
    return "";
}

std::vector<Cell> plan(const Options& options) {
    std::vector<Cell> cells;
    add_sizes(options, cells);
    if (is_wanted(options, Part::stopped)) {
        Load load = paced(one_size_bytes, stopped_consumers, options.stopped_seconds);
        load.stops_the_last_consumer = true;
        cells.push_back({Part::stopped, load});
    }
    if (is_wanted(options, Part::device)) {
        add_device(options, cells);
    }
    return cells;
}

}  // namespace zav_shm::bench::compare
