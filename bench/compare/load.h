// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace zav_shm::bench::compare {

/// What a publisher does when a consumer's queue is full.
enum class Flow {
    wait,  // for room: how fast can the system be when nothing may be lost?
    drop,  // the frame is lost for that consumer: what a camera needs, which cannot wait
};

/// What the processes of one run do.
struct Load {
    std::size_t payload_bytes = 64U << 10;
    int consumers = 1;          // of each stream
    int frames_per_second = 0;  // of each stream; 0: as fast as the system takes them
    Flow flow = Flow::wait;
    double seconds = 1;
    int cameras = 1;                       // a producer process each
    int streams = 1;                       // of each camera; a thread each in producer and consumer
    bool stops_the_last_consumer = false;  // by SIGSTOP for `seconds`

    int channels() const { return cameras * streams; }
    int consumer_processes() const { return cameras * consumers; }
};

}  // namespace zav_shm::bench::compare
