// SPDX-License-Identifier: Apache-2.0
#include "bench/machine_limits.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/child_processes.h"
#include "bench/monotonic_clock.h"
#include "bench/shared_memory.h"
#include "ipc/zav_sem.h"

namespace zav_shm::bench {

namespace {

// Keeps the compiler from leaving out a copy whose result nobody reads.
void keep(void* memory) { asm volatile("" : : "g"(memory) : "memory"); }

// The clock is read once per batch only.
constexpr int batch = 32;

std::int64_t deadline_ns(double seconds) {
    return monotonic_ns() + static_cast<std::int64_t>(seconds * 1e9);
}

constexpr long answer_wait_ms = 1000;

int answer(SEM_CTRL& ping, SEM_CTRL& pong) {
    while (ping.wait_forever() == 0) {
        sem_post(pong.sem);
    }
    return EXIT_FAILURE;
}

/// Round trips per second; 0 when no answer came.
double ask(SEM_CTRL& ping, SEM_CTRL& pong, double seconds) {
    const std::int64_t begin_ns = monotonic_ns();
    const std::int64_t end_ns = deadline_ns(seconds);
    std::uint64_t round_trips = 0;
    std::int64_t now_ns = begin_ns;
    for (; now_ns < end_ns; now_ns = monotonic_ns()) {
        for (int i = 0; i < batch; ++i, ++round_trips) {
            sem_post(ping.sem);
            if (pong.wait(answer_wait_ms) != 0) {
                return 0;
            }
        }
    }
    return static_cast<double>(round_trips) / seconds_from_ns(now_ns - begin_ns);
}

}  // namespace

double memcpy_in_and_out_mb_per_second(std::size_t payload_bytes, double seconds) {
    std::vector<unsigned char> source(payload_bytes, 1);
    std::vector<unsigned char> slot(payload_bytes);
    std::vector<unsigned char> destination(payload_bytes);
    const std::int64_t begin_ns = monotonic_ns();
    const std::int64_t end_ns = deadline_ns(seconds);
    std::uint64_t copies = 0;
    std::int64_t now_ns = begin_ns;
    for (; now_ns < end_ns; now_ns = monotonic_ns()) {
        for (int i = 0; i < batch; ++i, ++copies) {
            std::memcpy(slot.data(), source.data(), payload_bytes);
            keep(slot.data());
            std::memcpy(destination.data(), slot.data(), payload_bytes);
            keep(destination.data());
        }
    }
    const auto bytes = static_cast<double>(copies) * static_cast<double>(payload_bytes);
    return bytes / 1e6 / seconds_from_ns(now_ns - begin_ns);
}

double semaphore_round_trips_per_second(double seconds, Placement placement) {
    SEM_CTRL ping("/BENCH_PING", true);
    SEM_CTRL pong("/BENCH_PONG", true);
    if (!ping.is_open() || !pong.is_open()) {
        return 0;
    }
    Shared_Memory<double> rate;
    Child_Processes children;  // its destructor ends the answering one, which knows no end
    children.start("pong", [&] {
        place_client(placement, 0);
        return answer(ping, pong);
    });
    const std::size_t asking = children.start("ping", [&] {
        place_relay(placement);
        *rate = ask(ping, pong, seconds);
        return EXIT_SUCCESS;
    });
    return children.wait(asking) ? *rate : 0;
}

}  // namespace zav_shm::bench
