// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstring>
#include <thread>

#include "ring/ring_writer.h"

int main() {
    zav_shm::Ring_Problem problem;
    const auto ring = zav_shm::Ring_Writer::open(
        "/dev/shm/example", {.history_bytes = 1'000'000, .record_max = 4096}, problem);
    if (!ring) {
        std::fprintf(stderr, "%s\n", problem.text.c_str());
        return 1;
    }
    for (int number = 0; number < 50; ++number) {
        const auto room = ring->reserve(100);
        std::memset(room.data(), 'a' + number % 26, room.size());
        ring->commit(room.size(), {.flags = zav_shm::ring_flag::key});
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}
