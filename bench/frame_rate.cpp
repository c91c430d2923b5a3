// SPDX-License-Identifier: Apache-2.0
//
// One end of a stream at full rate, which bench/python_rate.py runs beside the same in Python:
//
//   bench_frame_rate publish|copy|view FRAMES BYTES
//
// A reader prints frames, seconds, microseconds of processor time, and frames lost or overwritten.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

long long processor_us() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    constexpr long long million = 1'000'000;
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * million + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
}

struct Figures {
    steady_clock::time_point begin = steady_clock::now();
    long long begin_us = processor_us();

    void print(int frames, unsigned long long bad) const {
        const std::chrono::duration<double> took = steady_clock::now() - begin;
        std::printf("%d %.6f %lld %llu\n", frames, took.count(), processor_us() - begin_us, bad);
    }
};

int publish(int frames, std::size_t bytes) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .center_wait = 0ms, .paced = true});
    (void)camera.open();
    const std::vector<std::byte> payload(bytes);
    const Figures figures;
    unsigned long long bad = 0;
    for (int number = 0; number < frames; ++number) {
        bad += camera.publish(payload).outcome == zav_shm::Publish_Outcome::published ? 0U : 1U;
    }
    figures.print(frames, bad);
    std::getchar();  // until its readers are done
    return 0;
}

template <class Frame, class Next>
int read(int frames, Frame& frame, const Next& next) {
    if (next() != zav_shm::Receive_Status::frame) {
        return 1;
    }
    const Figures figures;
    unsigned long long bad = 0;
    for (int number = 1; number < frames; ++number) {
        if (next() != zav_shm::Receive_Status::frame) {
            return 1;
        }
        bad += frame.before.lost();
        if constexpr (requires { frame.is_whole(); }) {
            bad += frame.is_whole() ? 0U : 1U;
        }
    }
    figures.print(frames - 1, bad);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int decimal = 10;
    const std::string role = argc == 4 ? argv[1] : "";
    if (role != "publish" && role != "copy" && role != "view") {
        std::fprintf(stderr, "bench_frame_rate publish|copy|view FRAMES BYTES\n");
        return 2;
    }
    const auto frames = static_cast<int>(std::strtol(argv[2], nullptr, decimal));
    if (role == "publish") {
        return publish(frames, std::strtoul(argv[3], nullptr, decimal));
    }
    ZAV_SHM_Frame_Subscriber reader({.name = "", .producer = "CAM_LOOP"});
    (void)reader.open();
    if (role == "copy") {
        zav_shm::Received_Frame frame;
        return read(frames, frame, [&] { return reader.receive(frame, 20s); });
    }
    zav_shm::Frame_View view;
    return read(frames, view, [&] { return reader.receive_view(view, 20s); });
}
