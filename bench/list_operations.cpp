// SPDX-License-Identifier: Apache-2.0
//
// How long pairing commands wait for a relay's list. The relay holds its list through the waits
// of a cycle, and lets a waiting operation in between two cycles. So an operation waits for the
// rest of a cycle, 33 ms at most at 30 frames per second: half of one in the median when it comes
// at any moment, nearly all of it when it comes right after another one (as the next stream of a
// client that registers), for then a cycle has just begun. To reach at 30 frames per second, in
// both: median below 40 ms, greatest below 120 ms.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "bench/bench_channel.h"
#include "bench/child_processes.h"
#include "bench/frame_processes.h"
#include "bench/monotonic_clock.h"
#include "bench/percentile.h"
#include "bench/private_namespaces.h"
#include "bench/shared_memory.h"
#include "bench/table.h"

namespace {

using namespace zav_shm::bench;

constexpr std::size_t payload_bytes = std::size_t{64} << 10;
constexpr int times = 200;

struct Scenario {
    const char* name;
    int frames_per_second;  // 0: as fast as it goes
    int absent_consumers;   // in the relay's list, without a process
};

constexpr Scenario scenarios[] = {
    {"30 fps", 30, 0},
    {"full rate", 0, 0},
    {"30 fps, 4 absent", 30, 4},
};

using Waits = std::vector<std::int64_t>;  // nanoseconds

/// What lies between two operations: a whole exchange with a client takes longer than 1 ms, so
/// nothing real comes sooner. Without any pause the relay would not even be awake again, and a
/// series would pass in one hand-over without waiting.
class Pause {
public:
    explicit Pause(bool at_any_moment) : at_any_moment_(at_any_moment) {}

    /// @return by how much the machine woke this thread too late, nanoseconds.
    std::int64_t operator()() {
        const double seconds = at_any_moment_ ? any_(random_) : 0.001;
        const std::int64_t due_ns = monotonic_ns() + static_cast<std::int64_t>(seconds * 1e9);
        sleep_until_ns(due_ns);
        return monotonic_ns() - due_ns;
    }

private:
    const bool at_any_moment_;
    std::minstd_rand random_{1};
    std::uniform_real_distribution<double> any_{0.001, 0.035};  // more than a cycle at 30 fps
};

/// Inserting and deleting take turns, as a consumer that comes and goes: two hundred absent
/// consumers at once would be another scenario.
struct Operation_Waits {
    Waits inserting, deleting, looking_up, counting;
    Waits plain_sleep;  // lateness of the pauses: the machine's own share in a long wait
};

void note_wait(Waits& waits, const std::function<void()>& operation) {
    const std::int64_t begin_ns = monotonic_ns();
    operation();
    waits.push_back(monotonic_ns() - begin_ns);
}

std::string milliseconds(const Waits& waits, double percent) {
    return fixed(static_cast<double>(percentile(waits, percent)) / 1e6, 2);
}

Operation_Waits measure_operations(SHM_Stream_Transmission& relay, Pause pause) {
    const IPC_SHM_DST_CTRL_INFO names = consumer_names(consumers_max);
    ZAV_SHM_Stream_Transmission_Distributor comer(&names);
    Operation_Waits waits;
    const auto measure = [&](Waits& of, const std::function<void()>& operation) {
        waits.plain_sleep.push_back(pause());
        note_wait(of, operation);
    };
    for (int i = 0; i < times; ++i) {
        measure(waits.inserting, [&] { relay.insert_distributor(&comer); });
        measure(waits.deleting, [&] { relay.delete_distributor(&comer); });
    }
    for (int i = 0; i < times; ++i) {
        measure(waits.looking_up, [&] { relay.duplicate_distributor(&comer); });
    }
    for (int i = 0; i < times; ++i) {
        measure(waits.counting, [&] { relay.get_distributor_num(); });
    }
    return waits;
}

void print_waits(const Table& table, const Scenario& scenario, const char* when,
                 const Operation_Waits& waits) {
    const auto line = [&](const char* operation, const Waits& of) {
        table.row({scenario.name, when, operation, milliseconds(of, 50), milliseconds(of, 99),
                   milliseconds(of, 100)});
    };
    line("insert_distributor", waits.inserting);
    line("delete_distributor", waits.deleting);
    line("duplicate_distributor", waits.looking_up);
    line("get_distributor_num", waits.counting);
    line("(a plain sleep's delay)", waits.plain_sleep);
}

void print_frames(const Scenario& scenario, const Run_Control& control) {
    const Producer_Report& producer = control.producer;
    const Consumer_Report& consumer = control.consumers[0];
    std::printf("%16s  frames meanwhile: %.1f/s, %llu missed, %llu dropped, %llu torn\n\n",
                scenario.name,
                static_cast<double>(consumer.received) / seconds_from_ns(producer.elapsed_ns),
                static_cast<unsigned long long>(producer.published - consumer.received),
                static_cast<unsigned long long>(producer.dropped),
                static_cast<unsigned long long>(consumer.torn));
}

/// The relay is a thread of this process, as in the center; the producer and the one live
/// consumer are processes, forked before that thread exists.
bool run(const Table& table, const Scenario& scenario) {
    Shared_Memory<Run_Control> control;
    Bench_Center center(payload_bytes, 1 + scenario.absent_consumers);
    Child_Processes children;
    children.start("consumer", [&] {
        return consume_frames(0, payload_bytes, std::span<std::int64_t>(), *control);
    });
    const std::size_t producer = children.start("producer", [&] {
        return produce_frames(payload_bytes, scenario.frames_per_second, *control);
    });
    if (!control->wait_until_ready(2) || !center.start()) {
        std::fprintf(stderr, "\"%s\" did not start\n", scenario.name);
        return false;
    }
    sleep_seconds(1);  // until the warm-up is over
    print_waits(table, scenario, "in a row", measure_operations(center.relay(), Pause(false)));
    print_waits(table, scenario, "any moment", measure_operations(center.relay(), Pause(true)));
    control->producer_stopping = 1;
    const bool succeeded = children.wait(producer);
    control->consumers_stopping = 1;
    if (!children.wait_all() || !succeeded) {
        return false;
    }
    print_frames(scenario, *control);
    return true;
}

}  // namespace

// What a failed allocation throws may well end this program.
int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
    if (argc > 1) {
        std::printf("Usage: %s\nTakes no options and about three minutes.\n", argv[0]);
        return std::strcmp(argv[1], "--help") == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (!enter_private_namespaces()) {
        return EXIT_FAILURE;
    }
    if (!prepare_names()) {
        std::perror("/dev/shm/shm");
        return EXIT_FAILURE;
    }
    std::printf("Waits of %d operations each, milliseconds\n", times);
    const Table table(
        {{"relay", 16}, {"when", 10}, {"operation", 23}, {"p50", 8}, {"p99", 8}, {"max", 8}},
        false);
    for (const Scenario& scenario : scenarios) {
        if (!run(table, scenario)) {
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}
