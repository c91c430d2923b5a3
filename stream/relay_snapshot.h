// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stream/channel_key.h"
#include "stream/relay_counters.h"

namespace zav_shm {

/// A consumer channel that was paired with a relay when somebody looked.
struct Consumer_Snapshot {
    std::string name;
    int channel = 0;
    int stream = 0;
    std::uint64_t frames = 0;  // announced to it
    int missed_in_row = 0;     // timed-out waits since the last that it kept
};

/// What a relay had done, and for whom, when somebody looked: plain values, to be kept and printed.
struct Relay_Snapshot {
    std::string name;  // of the producer
    int channel = 0;
    int stream = 0;

    // As in Relay_Counters.
    std::uint64_t cycles = 0;
    std::uint64_t frames = 0;
    std::uint64_t presence_timeouts = 0;
    std::uint64_t frame_timeouts = 0;
    std::uint64_t read_timeouts = 0;
    std::uint64_t late_read_timeouts = 0;
    int live = 0;

    std::vector<Consumer_Snapshot> consumers;
};

/// Without consumers, which the counters do not know.
inline Relay_Snapshot snapshot_of(const Shm_Stream_Transmission_Index& key,
                                  const Relay_Counters& counters) {
    Relay_Snapshot taken;
    taken.name = key.name;
    taken.channel = key.channel;
    taken.stream = key.stream;
    taken.cycles = counters.cycles.value();
    taken.frames = counters.frames.value();
    taken.presence_timeouts = counters.presence_timeouts.value();
    taken.frame_timeouts = counters.frame_timeouts.value();
    taken.read_timeouts = counters.read_timeouts.value();
    taken.late_read_timeouts = counters.late_read_timeouts.value();
    taken.live = counters.live;
    return taken;
}

}  // namespace zav_shm
