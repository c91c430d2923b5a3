// SPDX-License-Identifier: Apache-2.0
//
// What a center costs: one built from the defaults, with nothing paired, in a process of its own.

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/bench_channel.h"
#include "bench/child_processes.h"
#include "bench/monotonic_clock.h"
#include "bench/private_namespaces.h"
#include "bench/shared_memory.h"
#include "bench/silence.h"
#include "center/shm_center.h"

namespace {

using namespace zav_shm::bench;

constexpr double idle_seconds = 5;

struct Footprint {
    double start_ms;
    long resident_kib;  // without the segments
    long threads;
    double cpu_percent;
    double switches_per_second;
};

long status_value(const std::string& key) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(key + ":", 0) == 0) {
            return std::stol(line.substr(key.size() + 1));
        }
    }
    return 0;
}

double cpu_us(const rusage& usage) {
    return 1e6 * static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

int measure_footprint(Footprint& result) {
    silence_standard_output();
    ZAV_SHM_CONFIG* config = nullptr;
    const std::int64_t begin_ns = monotonic_ns();
    const ZAV_SHM_CENTER center(config);
    result.start_ms = seconds_from_ns(monotonic_ns() - begin_ns) * 1e3;
    sleep_seconds(1);
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    sleep_seconds(idle_seconds);
    getrusage(RUSAGE_SELF, &after);
    result.cpu_percent = (cpu_us(after) - cpu_us(before)) / (idle_seconds * 1e6) * 100;
    result.switches_per_second =
        static_cast<double>(after.ru_nvcsw + after.ru_nivcsw - before.ru_nvcsw - before.ru_nivcsw) /
        idle_seconds;
    result.resident_kib = status_value("RssAnon") + status_value("RssFile");
    result.threads = status_value("Threads");
    return EXIT_SUCCESS;
}

bool print_footprint() {
    Shared_Memory<Footprint> result;
    Child_Processes children;
    children.start("center", [&] { return measure_footprint(*result); });
    if (!children.wait_all()) {
        return false;
    }
    std::printf(
        "Center from the defaults, nothing paired: started in %.0f ms (100 ms of it a "
        "pause), %.1f MiB resident besides the segments, %ld threads, %.2f %% of a core, "
        "%.0f context switches/s\n\n",
        result->start_ms, static_cast<double>(result->resident_kib) / 1024, result->threads,
        result->cpu_percent, result->switches_per_second);
    return true;
}

}  // namespace

// What a failed allocation throws may well end this program.
int main() {  // NOLINT(bugprone-exception-escape)
    return enter_private_namespaces() && prepare_names() && print_footprint() ? EXIT_SUCCESS
                                                                              : EXIT_FAILURE;
}
