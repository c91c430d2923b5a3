// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

namespace zav_shm {

/// What a relay has done since it was made. Its thread counts, any thread may read; each counter
/// is right by itself, not in step with the others, hence relaxed order everywhere.
class Counter {
public:
    void add_one() { value_.fetch_add(1, std::memory_order_relaxed); }
    std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> value_{0};
};

struct Relay_Counters {
    Counter cycles;              // with at least one consumer in the list
    Counter frames;              // relayed to at least one consumer
    Counter presence_timeouts;   // a consumer did not announce itself within 5 ms
    Counter frame_timeouts;      // consumers were present, and no frame came within 30 ms
    Counter read_timeouts;       // a live consumer had not read within 20 ms
    Counter late_read_timeouts;  // nobody present, and no late "read done" within 30 ms
    std::atomic<int> live{0};    // consumers that were present in the last cycle
};

}  // namespace zav_shm
