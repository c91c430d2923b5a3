// SPDX-License-Identifier: Apache-2.0
#include "bench/frame_processes.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/bench_channel.h"
#include "bench/frame_stamp.h"
#include "bench/monotonic_clock.h"
#include "bench/pace.h"
#include "ipc/deadline.h"
#include "stream/endpoint.h"

namespace zav_shm::bench {

namespace {

// The relay finds the consumers one after the other, so that the first frame may go to some of
// them only.
constexpr std::uint64_t warm_up_frames = 10;

constexpr long ready_wait_ms = 5000;

STREAM_FRAME_FORMAT frame_around(std::vector<unsigned char>& payload) {
    STREAM_FRAME_FORMAT frame{};
    frame.payload_length = static_cast<std::uint32_t>(payload.size());
    frame.payload = payload.data();
    return frame;
}

void count_frame(const STREAM_FRAME_FORMAT& frame, std::int64_t now_ns,
                 std::span<std::int64_t> latencies_ns, std::uint64_t& newest,
                 Consumer_Report& report) {
    const Frame_Stamp stamp = read_stamp(frame);
    if (!is_whole(frame, stamp)) {
        ++report.torn;
        return;
    }
    if (stamp.sequence == 0) {
        return;
    }
    if (stamp.sequence <= newest) {
        ++report.repeated;
        return;
    }
    newest = stamp.sequence;
    ++report.received;
    if (report.latencies < latencies_ns.size()) {
        latencies_ns[report.latencies++] = now_ns - stamp.publish_ns;
    }
}

}  // namespace

Run_Control::Run_Control() {
    sem_init(&ready, 1, 0);
    sem_init(&relay_quit, 1, 0);
}

bool Run_Control::wait_until_ready(int count) {
    const timespec deadline = wall_clock_deadline(ready_wait_ms);
    for (int i = 0; i < count; ++i) {
        if (sem_timedwait(&ready, &deadline) != 0) {
            return false;
        }
    }
    return true;
}

int produce_frames(std::size_t payload_bytes, int frames_per_second, Run_Control& control) {
    const IPC_SHM_SRC_CTRL_INFO names = producer_names();
    ZAV_SHM_Stream_Distributor channel(names.shm_path, names.sem_path_src, names.sem_path_dst,
                                       names.sem_path_exist);
    std::vector<unsigned char> payload(payload_bytes);
    STREAM_FRAME_FORMAT frame = frame_around(payload);
    Producer_Report report;
    std::int64_t begin_ns = monotonic_ns();
    std::uint64_t sequence = 0;
    Pace pace(frames_per_second);
    sem_post(&control.ready);
    while (control.producer_stopping == 0) {
        pace.wait_for_next();
        const std::int64_t now_ns = monotonic_ns();
        write_stamp(frame, {now_ns, sequence});
        const bool written = channel.distribute_frame(&frame);
        if (sequence != 0) {
            ++(written ? report.published : report.dropped);
            ++sequence;
        } else if (written && ++report.warm_up == warm_up_frames) {
            sequence = 1;
            begin_ns = monotonic_ns();
        }
    }
    report.elapsed_ns = monotonic_ns() - begin_ns;
    control.producer = report;
    return EXIT_SUCCESS;
}

int consume_frames(int consumer, std::size_t payload_bytes, std::span<std::int64_t> latencies_ns,
                   Run_Control& control) {
    const IPC_SHM_DST_CTRL_INFO names = consumer_names(consumer);
    ZAV_SHM_Stream_Receiver channel(names.shm_path, names.sem_path_src, names.sem_path_dst,
                                    names.sem_path_exist);
    std::vector<unsigned char> payload(payload_bytes);
    STREAM_FRAME_FORMAT frame = frame_around(payload);
    Consumer_Report report;
    std::uint64_t newest = 0;
    sem_post(&control.ready);
    while (control.consumers_stopping == 0) {
        frame.payload = payload.data();
        if (channel.receive_frame(&frame)) {
            count_frame(frame, monotonic_ns(), latencies_ns, newest, report);
        }
    }
    control.consumers[static_cast<std::size_t>(consumer)] = report;
    return EXIT_SUCCESS;
}

}  // namespace zav_shm::bench
