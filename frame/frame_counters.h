// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

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
    std::uint64_t delivered = 0;
    std::uint64_t bytes = 0;  // of the delivered ones' payload
    std::uint64_t no_consumer = 0;
    std::uint64_t too_large = 0;
    std::uint64_t no_center = 0;   // also frames that were refused
    std::uint64_t slow_reads = 0;  // the slot was not free again within 33 ms
    std::uint64_t recoveries = 0;  // registered again after the center was restarted
};

/// What a subscriber has done since it was built. A snapshot; its parts may be some frames apart.
struct Subscriber_Counters {
    std::uint64_t frames = 0;  // taken off the slot, verified or foreign
    std::uint64_t bytes = 0;   // of their payload
    std::uint64_t key_frames = 0;
    std::uint64_t handed_out = 0;  // by receive()
    std::uint64_t lost = 0;        // gaps in the sequence, torn copies included
    std::uint64_t torn = 0;        // copies that were overwritten meanwhile, also after a retry
    std::uint64_t repeated = 0;    // the slot still held a frame that was taken before
    std::uint64_t invalid = 0;     // a length beyond the slot
    std::uint64_t no_memory = 0;   // there was none for the copy; lost, too
    std::uint64_t foreign = 0;     // without a header of ours
    std::uint64_t dropped = 0;     // the queue was full
    std::uint64_t skipped = 0;     // on the way to a key frame
    std::uint64_t timeouts_no_frame = 0;  // waits of 30 ms that a relay noticed: a silent producer
    std::uint64_t timeouts_no_relay = 0;  // not noticed: not paired, or the center is away
    std::uint64_t recoveries = 0;         // registered again
    std::uint64_t queued = 0;             // frames in the queue at this moment
    std::int64_t last_key_frame_ns = 0;   // CLOCK_MONOTONIC when the last one came; 0 never
    Latency_Histogram latency;            // from the begin of writing to the end of copying
};

}  // namespace zav_shm
