// SPDX-License-Identifier: Apache-2.0
//
// One line per cell and system, for programs. Empty fields are figures that the line does not have.

#include <array>
#include <string>

#include "bench/compare/report.h"
#include "bench/table.h"

namespace zav_shm::bench::compare {

namespace {

void print_line(std::FILE* file, const std::vector<std::string>& fields) {
    for (std::size_t i = 0; i < fields.size(); ++i) {
        std::fprintf(file, "%s%s", i == 0 ? "" : ",", fields[i].c_str());
    }
    std::fputs("\n", file);
}

void print_limit(std::FILE* file, const std::string& bytes, const std::string& name,
                 double microseconds) {
    print_line(file, {"limit", bytes, "1", "1", "1", name, "1", fixed(1e6 / microseconds, 1),
                      "",      "",    "",  "",  "",  "",   "",  fixed(microseconds, 2),
                      "",      "",    "",  "",  "",  "",   ""});
}

void print_figures(std::FILE* file, const Cell& cell, const std::string& system,
                   const Figures& all) {
    const auto median = [&](double Run_Result::*figure, int digits) {
        return fixed(all.median_of(figure), digits);
    };
    const auto sum = [&](std::uint64_t Run_Result::*count) {
        return std::to_string(all.sum_of(count));
    };
    const auto rate = [&](double percent) {
        return fixed(all.of_rounds(&Run_Result::frames_per_second, percent), 1);
    };
    const auto& [part, load] = cell;
    print_line(file, {name_of(part),
                      std::to_string(load.payload_bytes),
                      std::to_string(load.consumers),
                      std::to_string(load.cameras),
                      std::to_string(load.streams),
                      system,
                      std::to_string(all.rounds()),
                      rate(50),
                      rate(0),
                      rate(100),
                      median(&Run_Result::cpu_s_per_1000, 4),
                      median(&Run_Result::all_cpu, 4),
                      median(&Run_Result::producers_cpu, 4),
                      median(&Run_Result::consumers_cpu, 4),
                      median(&Run_Result::broker_cpu, 4),
                      fixed(all.latency_us(50), 1),
                      fixed(all.latency_us(99), 1),
                      fixed(all.latency_us(100), 1),
                      sum(&Run_Result::offered),
                      sum(&Run_Result::lost),
                      sum(&Run_Result::torn),
                      std::to_string(all.median_of(&Run_Result::healthy_frames)),
                      fixed(all.of_rounds(&Run_Result::greatest_gap_ms, 100), 1),
                      median(&Run_Result::start_seconds, 2)});
}

}  // namespace

void print_csv(const Results& results, std::FILE* file) {
    print_line(file, {"part",          "bytes",          "consumers",       "cameras",
                      "streams",       "system",         "rounds",          "frames_per_s",
                      "lowest",        "highest",        "cpu_s_per_1000",  "cpu",
                      "producers_cpu", "consumers_cpu",  "broker_cpu",      "p50_us",
                      "p99_us",        "max_us",         "offered",         "lost",
                      "torn",          "healthy_frames", "greatest_gap_ms", "start_s"});
    for (const auto& [bytes, copy_us] : results.limits.copy_us) {
        print_limit(file, std::to_string(bytes), "memcpy", copy_us);
    }
    print_limit(file, "0", "semaphores", results.limits.round_trip_us);
    for (std::size_t cell = 0; cell < results.cells.size(); ++cell) {
        for (std::size_t s = 0; s < results.systems.size(); ++s) {
            print_figures(file, results.cells[cell], results.systems[s].name,
                          results.figures[cell][s]);
        }
    }
}

}  // namespace zav_shm::bench::compare
