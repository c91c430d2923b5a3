// SPDX-License-Identifier: Apache-2.0
#include "bench/compare/report.h"

#include <algorithm>
#include <functional>

#include "bench/table.h"

namespace zav_shm::bench::compare {

namespace {

void print_row(std::FILE* file, const std::vector<std::string>& cells) {
    for (const std::string& cell : cells) {
        std::fprintf(file, "| %s ", cell.c_str());
    }
    std::fputs("|\n", file);
}

void print_head(std::FILE* file, const std::string& title, const std::vector<std::string>& cells) {
    std::fprintf(file, "\n%s\n\n", title.c_str());
    print_row(file, cells);
    for (std::size_t i = 0; i < cells.size(); ++i) {
        std::fputs("|---", file);
    }
    std::fputs("|\n", file);
}

using Shown = std::function<std::string(const Figures&)>;

std::string shown_or_failed(const Figures& figures, const Shown& shown) {
    return figures.rounds() > 0 ? shown(figures) : "failed";
}

bool has_part(const Results& results, Part part) {
    return std::ranges::any_of(results.cells,
                               [part](const Cell& cell) { return cell.part == part; });
}

/// A row per payload size and number of consumers, a column per system.
void print_matrix(const Results& results, std::FILE* file, Part part, const std::string& title,
                  const Shown& shown) {
    if (!has_part(results, part)) {
        return;
    }
    std::vector<std::string> head{"KiB", "consumers"};
    for (const System& system : results.systems) {
        head.push_back(system.name);
    }
    print_head(file, title, head);
    for (std::size_t i = 0; i < results.cells.size(); ++i) {
        const Cell& cell = results.cells[i];
        if (cell.part != part) {
            continue;
        }
        std::vector<std::string> row{fixed(static_cast<double>(cell.load.payload_bytes) / 1024, 0),
                                     std::to_string(cell.load.consumers)};
        for (const Figures& figures : results.figures[i]) {
            row.push_back(shown_or_failed(figures, shown));
        }
        print_row(file, row);
    }
}

std::string latencies(const Figures& figures) {
    return fixed(figures.latency_us(50), 0) + " / " + fixed(figures.latency_us(99), 0) + " / " +
           fixed(figures.latency_us(100), 0);
}

std::string cost(const Figures& figures) {
    return fixed(figures.median_of(&Run_Result::cpu_s_per_1000), 3);
}

std::string losses(const Figures& figures) {
    const std::uint64_t lost = figures.sum_of(&Run_Result::lost);
    return lost == 0 ? "0" : std::to_string(lost) + " (" + fixed(figures.lost_percent(), 2) + " %)";
}

std::string rate(const Figures& figures) {
    return fixed(figures.median_of(&Run_Result::frames_per_second), 0);
}

void print_compared(const Results& results, std::FILE* file) {
    print_head(file, "Compared", {"system", "copies of each payload byte"});
    for (const System& system : results.systems) {
        print_row(file, {system.name, system.copies});
    }
}

void print_limits(const Results& results, std::FILE* file) {
    print_head(file, "The machine's own limits", {"what", "microseconds"});
    for (const auto& [bytes, copy_us] : results.limits.copy_us) {
        print_row(file, {"memcpy of " + std::to_string(bytes / 1024) + " KiB in and out again",
                         fixed(copy_us, 1)});
    }
    print_row(file, {"two processes wake each other once through semaphores",
                     fixed(results.limits.round_trip_us, 1)});
}

void print_sizes(const Results& results, std::FILE* file) {
    print_matrix(results, file, Part::paced,
                 "Age of a frame at its consumer, 30 frames per second: median / 99th percentile / "
                 "greatest, microseconds",
                 latencies);
    print_matrix(results, file, Part::paced,
                 "CPU seconds of all processes per 1,000 delivered frames, 30 frames per second",
                 cost);
    print_matrix(results, file, Part::paced, "Frames lost at 30 frames per second", losses);
    print_matrix(results, file, Part::full_rate, "Frames per second at each consumer, full rate",
                 rate);
    print_matrix(results, file, Part::full_rate,
                 "CPU seconds of all processes per 1,000 delivered frames, full rate", cost);
    print_matrix(results, file, Part::full_rate, "Frames lost at full rate", losses);
}

/// One figure of a table with a row per system.
struct Figure_Column {
    std::string title;
    Shown shown;
};

void print_systems(const Results& results, std::FILE* file, std::size_t cell,
                   const std::string& title, const std::vector<Figure_Column>& columns) {
    std::vector<std::string> head{"system"};
    for (const Figure_Column& column : columns) {
        head.push_back(column.title);
    }
    print_head(file, title, head);
    for (std::size_t s = 0; s < results.systems.size(); ++s) {
        std::vector<std::string> row{results.systems[s].name};
        for (const Figure_Column& column : columns) {
            row.push_back(shown_or_failed(results.figures[cell][s], column.shown));
        }
        print_row(file, row);
    }
}

std::string frames_of_healthy(const Figures& figures) {
    return std::to_string(figures.median_of(&Run_Result::healthy_frames));
}

std::string greatest_gap(const Figures& figures) {
    return fixed(figures.of_rounds(&Run_Result::greatest_gap_ms, 100), 0);
}

void print_stopped(const Results& results, std::FILE* file, std::size_t cell) {
    const Load& load = results.cells[cell].load;
    print_systems(
        results, file, cell,
        "One of two consumers stopped for " + fixed(load.seconds, 1) +
            " s, 64 KiB at 30 frames per second: what the other one got",
        {{"frames, of " + fixed(load.frames_per_second * load.seconds, 0), frames_of_healthy},
         {"greatest gap, ms", greatest_gap}});
}

/// Percent of one processor.
Figure_Column cpu_column(const std::string& title, double Run_Result::*figure) {
    return {title, [figure](const Figures& figures) {
                return fixed(100 * figures.median_of(figure), 1) + " %";
            }};
}

void print_device(const Results& results, std::FILE* file, std::size_t cell) {
    const Load& load = results.cells[cell].load;
    print_systems(results, file, cell,
                  std::to_string(load.cameras) +
                      " cameras with 2 streams of 64 KiB at 30 frames per second, consumers of "
                      "each stream: " +
                      std::to_string(load.consumers),
                  {cpu_column("CPU, of one processor", &Run_Result::all_cpu),
                   cpu_column("producers", &Run_Result::producers_cpu),
                   cpu_column("consumers", &Run_Result::consumers_cpu),
                   cpu_column("broker", &Run_Result::broker_cpu),
                   {"start, s",
                    [](const Figures& figures) {
                        return fixed(figures.median_of(&Run_Result::start_seconds), 1);
                    }},
                   {"lost", losses},
                   {"age: median / 99th / greatest, us", latencies}});
}

void print_recorders(const Results& results, std::FILE* file) {
    for (std::size_t cell = 0; cell < results.cells.size(); ++cell) {
        if (results.cells[cell].part == Part::stopped) {
            print_stopped(results, file, cell);
        } else if (results.cells[cell].part == Part::device) {
            print_device(results, file, cell);
        }
    }
}

void print_failures(const Results& results, std::FILE* file) {
    for (std::size_t i = 0; i < results.cells.size(); ++i) {
        const auto& [part, load] = results.cells[i];
        for (std::size_t s = 0; s < results.systems.size(); ++s) {
            if (const int failures = results.figures[i][s].failures(); failures > 0) {
                std::fprintf(file, "\n%s failed in %d round(s): %s, %zu KiB, %d consumer(s).\n",
                             results.systems[s].name.c_str(), failures, name_of(part),
                             load.payload_bytes / 1024, load.consumers);
            }
        }
    }
}

}  // namespace

void print_tables(const Results& results, std::FILE* file) {
    print_compared(results, file);
    print_limits(results, file);
    print_sizes(results, file);
    print_recorders(results, file);
    print_failures(results, file);
}

}  // namespace zav_shm::bench::compare
