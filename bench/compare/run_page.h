// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the processes of one run share: flags that the bench sets, and what each counts.

#include <semaphore.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "bench/compare/load.h"

namespace zav_shm::bench::compare {

inline constexpr int most_cameras = 17;
inline constexpr int most_streams = 2;
inline constexpr int most_consumers = 4;
inline constexpr std::size_t cache_line_bytes = 64;

/// Of one stream; written by its producer alone.
struct alignas(cache_line_bytes) Producer_Count {
    std::atomic<std::uint64_t> offered{0};  // counted frames, sent or not: the last sequence
};

/// Of one consumer of one stream; written by it alone.
struct alignas(cache_line_bytes) Consumer_Count {
    std::atomic<std::uint64_t> uncounted{0};  // frames with sequence 0, before and after
    std::atomic<std::uint64_t> received{0};   // different whole counted frames
    std::atomic<std::uint64_t> torn{0};       // made of two frames, and not noticed by the system
    std::atomic<std::int64_t> last_ns{0};     // when the last one came
    std::atomic<std::int64_t> greatest_gap_ns{0};  // between two frames while `watches_gaps`
    std::atomic<std::size_t> latencies{0};         // entries written to its latency area
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

/// Lives in memory that all processes of a run share. Relaxed everywhere: each value stands for
/// itself, and the final ones are read when their writers have left or come to rest.
struct Run_Page {
    Run_Page() { sem_init(&ready, 1, 0); }

    static std::size_t index(int camera, int stream) {
        return static_cast<std::size_t>(camera) * most_streams + static_cast<std::size_t>(stream);
    }
    Producer_Count& producer(int camera, int stream) { return producers.at(index(camera, stream)); }
    Consumer_Count& consumer(int camera, int stream, int number) {
        return consumers.at(index(camera, stream) * most_consumers +
                            static_cast<std::size_t>(number));
    }

    sem_t ready{};  // each thread of each process posts it once, also one that failed
    std::atomic<int> failures{0};

    std::atomic<int> counting{0};            // producers: the warm-up is over
    std::atomic<int> producers_stopping{0};  // producers: no more counted frames
    std::atomic<int> consumers_stopping{0};  // consumers: leave at the next frame
    std::atomic<int> producers_leaving{0};   // producers: leave, no consumer is left
    std::atomic<int> watches_gaps{0};

    std::array<Producer_Count, std::size_t{most_cameras} * most_streams> producers{};
    std::array<Consumer_Count, std::size_t{most_cameras} * most_streams * most_consumers>
        consumers{};
};

}  // namespace zav_shm::bench::compare
