// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "frame_pattern.h"
#include "roles.h"
#include "stream/zav_stream_processor.h"

namespace {

bool send(ZAV_SHM_Stream_Distributor& producer, std::vector<unsigned char>& buffer,
          const frame_pattern::Stamp& stamp) {
    STREAM_FRAME_FORMAT frame{};
    frame_pattern::fill(frame, buffer, stamp);
    return producer.distribute_frame(&frame);
}

}  // namespace

int roles::producer(const Arguments& arguments) {
    const auto names = producer_names();
    ZAV_SHM_Stream_Distributor producer(names.shm_path, names.sem_path_src, names.sem_path_dst,
                                        names.sem_path_exist);
    const std::uint64_t first = std::strtoull(arguments[1].c_str(), nullptr, 10);
    const std::uint64_t last = std::strtoull(arguments[2].c_str(), nullptr, 10);
    const long fps = std::strtol(arguments[3].c_str(), nullptr, 10);
    print_ready();

    std::vector<unsigned char> buffer(frame_pattern::page_size);
    long refused = 0;
    auto due = std::chrono::steady_clock::now();
    const auto period_ms = static_cast<std::uint8_t>(fps > 0 ? 1000 / fps : 0);
    for (std::uint64_t number = first; number <= last; ++number) {
        if (fps > 0) {
            std::this_thread::sleep_until(due);
            due += std::chrono::nanoseconds(1'000'000'000 / fps);
        }
        while (
            !send(producer, buffer, {number, frame_pattern::now_ns(), period_ms, number == last})) {
            ++refused;
        }
    }
    const unsigned long long sent = last - first + 1;
    std::printf("sent=%llu refused=%ld\n", sent, refused);
    return EXIT_SUCCESS;
}
