// SPDX-License-Identifier: Apache-2.0
#pragma once

// The bodies of the producer and consumer processes, and the page through which the bench
// starts and ends them and they report what they counted.

#include <semaphore.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zav_shm::bench {

inline constexpr int consumers_max = 16;

struct Producer_Report {
    std::uint64_t warm_up = 0;    // frames written before counting began
    std::uint64_t published = 0;  // distribute_frame returned true
    std::uint64_t dropped = 0;    // distribute_frame returned false
    std::int64_t elapsed_ns = 0;  // from the first counted frame to the end of the last
};

struct Consumer_Report {
    std::uint64_t received = 0;  // different whole frames
    std::uint64_t torn = 0;      // copies with parts of two frames
    std::uint64_t repeated = 0;  // copies of a frame that was received before
    std::size_t latencies = 0;   // entries written to its latency area
};

/// Lives in memory that all processes of a run share. A report is written by its process alone,
/// just before it leaves, and read after it has been waited for.
struct Run_Control {
    Run_Control();

    /// Waits up to 5 s for `count` processes to report that they are about to begin.
    bool wait_until_ready(int count);

    sem_t ready{};                           // each process posts it once
    sem_t relay_quit{};                      // posted to end the relay process
    std::atomic<int> producer_stopping{0};   // ends the producer
    std::atomic<int> consumers_stopping{0};  // set after the producer has left
    Producer_Report producer;
    std::array<Consumer_Report, consumers_max> consumers;
};
static_assert(std::atomic<int>::is_always_lock_free);

/// Sends frames of that size until told to stop: at `frames_per_second`, or one right after the
/// other when that is 0. The first ten are a warm-up.
///
/// @return the exit status of the process.
int produce_frames(std::size_t payload_bytes, int frames_per_second, Run_Control& control);

/// Receives frames until told to stop, and notes the age of each in `latencies_ns` as long as
/// there is room.
///
/// @return the exit status of the process.
int consume_frames(int consumer, std::size_t payload_bytes, std::span<std::int64_t> latencies_ns,
                   Run_Control& control);

}  // namespace zav_shm::bench
