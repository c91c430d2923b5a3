// SPDX-License-Identifier: Apache-2.0
//
// How long publish() takes its caller, beside a memcpy of the same bytes into memory that was as
// long unused: with no reader, with readers that take every frame, and with one that is stopped.
// Both take turns, so that what else the machine does hits both alike.
#include <sched.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bench/child_processes.h"
#include "bench/command_line.h"
#include "bench/monotonic_clock.h"
#include "bench/percentile.h"
#include "bench/private_namespaces.h"
#include "bench/table.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

namespace {

using namespace zav_shm::bench;
using namespace std::chrono_literals;

constexpr std::size_t frames_of_history = 16;
constexpr std::size_t sizes[] = {4 << 10, 64 << 10, 256 << 10, 1 << 20};

struct Readers {
    const char* title;
    int count;
    bool are_stopped;
};

constexpr Readers readers[] = {
    {"0", 0, false}, {"1", 1, false}, {"4", 4, false}, {"1 stopped", 1, true}};

struct Options {
    int frames = 1000;
    std::chrono::microseconds interval{2000};
    bool csv = false;
};

std::optional<Options> parse(int argc, char** argv, int& exit_status) {
    Options options;
    const option known[] = {{"frames", required_argument, nullptr, 'n'},
                            {"interval-us", required_argument, nullptr, 'i'},
                            {"csv", no_argument, nullptr, 'c'},
                            {"help", no_argument, nullptr, 'h'},
                            {}};
    const char* const usage =
        "bench_publish [--frames N] [--interval-us N] [--csv]\n"
        "Prints how long publish() takes, in microseconds.\n";
    const bool goes_on = read_command_line(
        argc, argv, known, usage,
        [&options](int letter, const char* text) {
            if (letter == 'c') {
                options.csv = true;
                return true;
            }
            const auto number =
                number_option(letter == 'n' ? "--frames" : "--interval-us", text, 0, 1e6);
            if (number && letter == 'n') {
                options.frames = static_cast<int>(*number);
            } else if (number) {
                options.interval = std::chrono::microseconds(static_cast<long>(*number));
            }
            return number.has_value();
        },
        exit_status);
    return goes_on ? std::optional(options) : std::nullopt;
}

// Ends when nothing came for a second, or is killed.
int read_all(std::size_t bytes) {
    ZAV_SHM_Frame_Subscriber reader({.producer = "CAM", .center_wait = 0ms});
    static_cast<void>(reader.open());
    std::vector<std::byte> copy(bytes);
    zav_shm::Frame_View view;
    while (reader.receive_view(view, 3s) == zav_shm::Receive_Status::frame) {
        std::memcpy(copy.data(), view.payload().data(), view.payload().size());
        static_cast<void>(view.is_whole());
    }
    return EXIT_SUCCESS;
}

struct Times {
    std::vector<std::int64_t> publish_ns;
    std::vector<std::int64_t> memcpy_ns;
};

Times measure(const Options& options, std::size_t bytes, const Readers& with) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM",
                                    .center_wait = 0ms,
                                    .history_bytes = frames_of_history * bytes,
                                    .frame_bytes_max = bytes});
    static_cast<void>(camera.open());
    Child_Processes children;
    for (int i = 0; i < with.count; ++i) {
        children.start("reader", [bytes] { return read_all(bytes); });
    }
    std::this_thread::sleep_for(with.count != 0 ? 200ms : 0ms);
    for (int i = 0; with.are_stopped && i < with.count; ++i) {
        children.signal(static_cast<std::size_t>(i), SIGSTOP);
    }
    const std::vector<std::byte> payload(bytes, std::byte{1});
    std::vector<std::byte> memory(frames_of_history * bytes, std::byte{2});
    Times times;
    for (int i = 0; i < options.frames; ++i) {
        const std::int64_t begin_ns = monotonic_ns();
        if (!camera.publish(payload).published()) {
            std::fprintf(stderr, "not published: %s\n", camera.reason().c_str());
            std::exit(EXIT_FAILURE);
        }
        const std::int64_t published_ns = monotonic_ns();
        std::byte* const to =
            memory.data() + static_cast<std::size_t>(i) % frames_of_history * bytes;
        std::memcpy(to, payload.data(), bytes);
        asm volatile("" : : "r"(to) : "memory");
        const std::int64_t end_ns = monotonic_ns();
        times.publish_ns.push_back(published_ns - begin_ns);
        times.memcpy_ns.push_back(end_ns - published_ns);
        std::this_thread::sleep_for(options.interval);
    }
    for (int i = 0; i < with.count; ++i) {
        children.kill(static_cast<std::size_t>(i));
    }
    return times;
}

std::string microseconds(const std::vector<std::int64_t>& times_ns, double percent) {
    return fixed(static_cast<double>(percentile(times_ns, percent)) / 1e3, 1);
}

}  // namespace

int main(int argc, char** argv) {
    int exit_status = EXIT_SUCCESS;
    const auto options = parse(argc, argv, exit_status);
    if (!options) {
        return exit_status;
    }
    if (!enter_private_namespaces()) {
        return EXIT_FAILURE;
    }
    const Table table({{"payload", 9},
                       {"readers", 10},
                       {"publish p50", 11},
                       {"p99", 8},
                       {"max", 9},
                       {"memcpy p50", 10},
                       {"p99", 8},
                       {"max", 9}},
                      options->csv);
    for (const std::size_t bytes : sizes) {
        for (const Readers& with : readers) {
            const Times times = measure(*options, bytes, with);
            table.row({std::to_string(bytes), with.title, microseconds(times.publish_ns, 50),
                       microseconds(times.publish_ns, 99), microseconds(times.publish_ns, 100),
                       microseconds(times.memcpy_ns, 50), microseconds(times.memcpy_ns, 99),
                       microseconds(times.memcpy_ns, 100)});
        }
    }
    return EXIT_SUCCESS;
}
