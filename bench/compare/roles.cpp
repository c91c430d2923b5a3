// SPDX-License-Identifier: Apache-2.0
#include "bench/compare/roles.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>
#include <vector>

#include "bench/compare/frame_pattern.h"
#include "bench/monotonic_clock.h"
#include "bench/pace.h"
#include "bench/silence.h"

namespace zav_shm::bench::compare {

namespace {

// Fast enough to find all consumers soon, slow enough for 34 streams on two processors.
constexpr int uncounted_frames_per_second = 60;

void offer(Publisher& publisher, std::uint64_t sequence) {
    const std::int64_t now_ns = monotonic_ns();
    if (const std::span<std::byte> room = publisher.room(); !room.empty()) {
        write_pattern(room, {now_ns, sequence});
        publisher.publish();
    }
}

// Cameras are not in step: their frames are spread over the period.
void wait_for_own_phase(const Channel& channel) {
    if (const Load& load = channel.load; load.frames_per_second != 0) {
        const std::int64_t step_ns = ns_per_second / load.frames_per_second / load.channels();
        const int number = channel.camera * load.streams + channel.stream;
        sleep_until_ns(monotonic_ns() + number * step_ns);
    }
}

/// Frames that nobody counts, as long as `goes_on`.
template <typename Condition>
void send_uncounted(Publisher& publisher, Condition goes_on) {
    Pace pace(uncounted_frames_per_second);
    while (goes_on()) {
        pace.wait_for_next();
        offer(publisher, 0);
    }
}

void produce(const Transport& transport, const Channel& channel, Run_Page& page) {
    const auto publisher = transport.make_publisher(channel);
    Producer_Count& count = page.producer(channel.camera, channel.stream);
    sem_post(&page.ready);
    send_uncounted(*publisher, [&] { return page.counting == 0; });
    wait_for_own_phase(channel);
    Pace pace(channel.load.frames_per_second);
    for (std::uint64_t sequence = 1; page.producers_stopping == 0; ++sequence) {
        pace.wait_for_next();
        count.offered.store(sequence, std::memory_order_relaxed);
        offer(*publisher, sequence);
    }
    send_uncounted(*publisher, [&] { return page.producers_leaving == 0; });
}

/// Checks and counts the frames of one consumer.
class Counting_Reader : public Frame_Reader {
public:
    Counting_Reader(const Load& load, std::span<std::int64_t> latencies_ns, const Run_Page& page,
                    Consumer_Count& count)
        : load_(load), latencies_ns_(latencies_ns), page_(page), count_(count) {}

    void read(std::span<const std::byte> payload) override {
        stamp_ = read_pattern(payload, load_.payload_bytes);
        now_ns_ = monotonic_ns();
    }

    bool judged(bool whole) override {
        if (whole && !stamp_) {
            add_one(count_.torn);
        } else if (whole && stamp_->sequence == 0) {
            add_one(count_.uncounted);
        } else if (whole && stamp_->sequence > newest_) {
            newest_ = stamp_->sequence;
            count_frame();
        }
        return page_.consumers_stopping == 0;
    }

private:
    // This thread is the only one that writes.
    template <typename Number>
    static void add_one(std::atomic<Number>& number) {
        number.store(number.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    void count_frame() {
        const std::int64_t gap_ns = now_ns_ - count_.last_ns.load(std::memory_order_relaxed);
        if (page_.watches_gaps.load(std::memory_order_relaxed) != 0 &&
            gap_ns > count_.greatest_gap_ns.load(std::memory_order_relaxed)) {
            count_.greatest_gap_ns.store(gap_ns, std::memory_order_relaxed);
        }
        count_.last_ns.store(now_ns_, std::memory_order_relaxed);
        add_one(count_.received);
        if (const std::size_t noted = count_.latencies; noted < latencies_ns_.size()) {
            latencies_ns_[noted] = now_ns_ - stamp_->publish_ns;
            add_one(count_.latencies);
        }
    }

    const Load& load_;
    const std::span<std::int64_t> latencies_ns_;
    const Run_Page& page_;
    Consumer_Count& count_;
    std::optional<Frame_Stamp> stamp_;  // of the frame read last
    std::int64_t now_ns_ = 0;           // when it had been read
    std::uint64_t newest_ = 0;
};

void consume(const Transport& transport, const Channel& channel, int number,
             std::span<std::int64_t> latencies_ns, Run_Page& page) {
    const auto subscriber = transport.make_subscriber(channel, number);
    Counting_Reader reader(channel.load, latencies_ns, page,
                           page.consumer(channel.camera, channel.stream, number));
    sem_post(&page.ready);
    while (page.consumers_stopping == 0) {
        subscriber->serve(reader);
    }
}

/// Runs `body` for each stream: the first on this thread, the others beside it.
///
/// @return the exit status: a failure when one of them failed, which is told on standard error.
template <typename Body>
int run_streams(const Load& load, Run_Page& page, Body body) {
    silence_standard_output();
    const auto guarded = [&](int stream) {
        try {
            body(stream);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            ++page.failures;
            sem_post(&page.ready);
        }
    };
    std::vector<std::thread> others;
    for (int stream = 1; stream < load.streams; ++stream) {
        others.emplace_back(guarded, stream);
    }
    guarded(0);
    for (std::thread& other : others) {
        other.join();
    }
    return page.failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int run_producer(const Transport& transport, const Load& load, int camera, Run_Page& page) {
    return run_streams(load, page, [&](int stream) {
        produce(transport, {camera, stream, load}, page);
    });
}

int run_consumer(const Transport& transport, const Load& load, int camera, int number,
                 const Latency_Area& latencies, Run_Page& page) {
    return run_streams(load, page, [&](int stream) {
        consume(transport, {camera, stream, load}, number, latencies(stream), page);
    });
}

}  // namespace zav_shm::bench::compare
