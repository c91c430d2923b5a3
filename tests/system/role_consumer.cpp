// SPDX-License-Identifier: Apache-2.0
//
// A process that is kept from the processor for longer than the others wait for it (the relay
// 20 ms for a reader, the producer 33 ms for the slot) leaves posts behind, and from then on the
// base layer may hand out a slot that is written again while it is copied, or hand it out twice.
// Such a stall shows in the frame's age or in the gap before it, and what is not as it should be
// from then on is counted apart.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "frame_pattern.h"
#include "roles.h"
#include "stream/zav_stream_processor.h"

namespace {

constexpr std::int64_t ns_per_ms = 1'000'000;
constexpr std::int64_t relay_read_wait_ns = 20 * ns_per_ms;
constexpr std::int64_t idle_limit_ns = 3000 * ns_per_ms;

class Tally {
public:
    void add(const STREAM_FRAME_FORMAT& frame) {
        const auto stamp = frame_pattern::stamp_of(frame);
        watch_the_time(stamp);
        ++frames_;
        if (!frame_pattern::is_right(frame)) {
            ++(stalled_ > 0 ? after_stall_ : wrong_);
            return;
        }
        if (stamp.number <= former_) {
            ++(stalled_ > 0 ? after_stall_ : disordered_);
        } else {
            missed_ += former_ == 0 ? 0 : stamp.number - former_ - 1;
        }
        former_ = stamp.number;
        last_ = stamp.last;
    }

    bool is_over() const { return last_ || frame_pattern::now_ns() - former_ns_ > idle_limit_ns; }

    void print() const {
        std::printf(
            "frames=%llu missed=%llu wrong=%d disordered=%d stalled=%d after_stall=%d "
            "last=%d "
            "gap_ms=%lld\n",
            static_cast<unsigned long long>(frames_), static_cast<unsigned long long>(missed_),
            wrong_, disordered_, stalled_, after_stall_, last_ ? 1 : 0,
            static_cast<long long>(gap_ns_ / ns_per_ms));
    }

private:
    void watch_the_time(const frame_pattern::Stamp& stamp) {
        const std::int64_t now = frame_pattern::now_ns();
        const std::int64_t gap = frames_ > 0 ? now - former_ns_ : 0;
        const bool late = now - stamp.publish_ns >= relay_read_wait_ns ||
                          gap >= stamp.period_ms * ns_per_ms + relay_read_wait_ns;
        stalled_ += late ? 1 : 0;
        gap_ns_ = std::max(gap_ns_, gap);
        former_ns_ = now;
    }

    std::uint64_t frames_ = 0;
    std::uint64_t missed_ = 0;
    int wrong_ = 0;
    int disordered_ = 0;
    int stalled_ = 0;
    int after_stall_ = 0;
    std::uint64_t former_ = 0;
    std::int64_t former_ns_ = frame_pattern::now_ns();
    std::int64_t gap_ns_ = 0;
    bool last_ = false;
};

}  // namespace

int roles::consumer(const Arguments& arguments) {
    const auto names = consumer_names(arguments[1]);
    ZAV_SHM_Stream_Receiver consumer(producer_names().shm_path, names.sem_path_src,
                                     names.sem_path_dst, names.sem_path_exist);
    std::vector<unsigned char> buffer(frame_pattern::page_size);
    STREAM_FRAME_FORMAT frame{};
    frame.payload = buffer.data();
    Tally tally;
    if (consumer.receive_frame(&frame)) {  // once first, so that "ready" means announced
        tally.add(frame);
    }
    print_ready();
    while (!tally.is_over()) {
        if (consumer.receive_frame(&frame)) {
            tally.add(frame);
        }
    }
    tally.print();
    return EXIT_SUCCESS;
}
