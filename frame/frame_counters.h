// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "ring/reader_card.h"

namespace zav_shm {

/// How often which latency occurred: buckets that grow with the latency, each at most 1/8 wide of
/// its own value, from 1 us to about half an hour. A plain value: subtract two of them to see a
/// stretch of time.
class Latency_Histogram {
public:
    static constexpr std::size_t bucket_count = 256;

    void add(std::int64_t ns);
    std::uint64_t count() const;

    /// The latency in nanoseconds that `share` (0 .. 1) of the frames did not exceed; 0 when there
    /// is none.
    std::int64_t percentile_ns(double share) const;

    Latency_Histogram& operator-=(const Latency_Histogram& earlier);

    static std::size_t bucket_of(std::int64_t ns);
    static std::int64_t upper_bound_ns(std::size_t bucket);

    std::array<std::uint64_t, bucket_count> buckets = {};
};

/// What a publisher has done since it was built. A snapshot.
struct Publisher_Counters {
    std::uint64_t frames = 0;  // offered, whatever became of them: the last sequence number
    std::uint64_t published = 0;
    std::uint64_t bytes = 0;  // of their payload
    std::uint64_t too_large = 0;
    std::uint64_t refused = 0;     // frames, also those without a ring to write
    std::uint64_t recoveries = 0;  // registered again after the center was restarted

    // A paced publisher's.
    std::uint64_t waits = 0;     // for readers that were behind
    std::uint64_t given_up = 0;  // readers that did not move within the time, again and again

    // What the consumers of the fixed interface got of it.
    std::uint64_t slot_frames = 0;       // written while at least one of them was present
    std::uint64_t slot_passed_over = 0;  // they were not back in time
    std::uint64_t slot_slow_reads = 0;   // the slot was not free again within 33 ms
};

/// What a subscriber has done since it was built. A snapshot; its parts may be some frames apart.
/// The same as its card says, and what it knows of a producer's slot.
struct Subscriber_Counters : Reader_Card::Counters {
    std::uint64_t lost() const { return overtaken + left_out + no_memory; }

    /// As the card says.
    void take_from(const Reader_Card& card);

    std::uint64_t timeouts_no_frame = 0;  // waits of 30 ms at a slot that a relay noticed
    std::uint64_t timeouts_no_relay = 0;  // not noticed: not paired, or the center is away
    Latency_Histogram latency;            // from the begin of writing to the end of copying
};

}  // namespace zav_shm
