// SPDX-License-Identifier: Apache-2.0
//
// Order of a run: the relay process makes all kernel objects, then the consumers start, then the
// producer. At the end the producer leaves first, so that every frame it sent can still be
// received, then the consumers, then the relay.

#include "bench/relay_cell.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

#include "bench/bench_channel.h"
#include "bench/child_processes.h"
#include "bench/frame_processes.h"
#include "bench/monotonic_clock.h"
#include "bench/safe_layer_processes.h"
#include "bench/shared_memory.h"

namespace zav_shm::bench {

namespace {

int run_relay_process(const Relay_Cell& cell, Run_Control& control) {
    place_relay(cell.placement);
    if (cell.layer != Layer::base) {
        return run_center(cell.payload_bytes, cell.consumers, control);
    }
    Bench_Center center(cell.payload_bytes, cell.consumers);
    if (!center.start()) {
        return EXIT_FAILURE;
    }
    sem_post(&control.ready);
    while (sem_wait(&control.relay_quit) != 0 && errno == EINTR) {
    }
    return EXIT_SUCCESS;
}

class Relay_Run {
public:
    explicit Relay_Run(const Relay_Cell& cell)
        : cell_(cell),
          latencies_per_consumer_(latency_room(cell)),
          latencies_(latencies_per_consumer_ * static_cast<std::size_t>(cell.consumers)) {}

    std::optional<Relay_Result> run() {
        if (!start()) {
            std::fprintf(stderr, "The processes of a run did not start within 5 s\n");
            return {};
        }
        sleep_seconds(cell_.seconds);
        if (!stop()) {
            return {};
        }
        if (control_->producer.published == 0) {
            std::fprintf(stderr, "No frame came through\n");
            return {};
        }
        return result();
    }

private:
    // Twice the frames that the given rate makes, since a late producer catches up.
    static std::size_t latency_room(const Relay_Cell& cell) {
        return static_cast<std::size_t>(2.0 * cell.frames_per_second * (cell.seconds + 1.0));
    }

    std::span<std::int64_t> latencies_of(int consumer) {
        return {&*latencies_ + static_cast<std::size_t>(consumer) * latencies_per_consumer_,
                latencies_per_consumer_};
    }

    bool start() {
        Run_Control& control = *control_;
        children_.start("relay", [&] { return run_relay_process(cell_, control); });
        if (!control.wait_until_ready(1)) {
            return false;
        }
        for (int i = 0; i < cell_.consumers; ++i) {
            children_.start("consumer " + std::to_string(i), [&, i] {
                place_client(cell_.placement, i + 1);
                return cell_.layer == Layer::base
                           ? consume_frames(i, cell_.payload_bytes, latencies_of(i), control)
                           : subscribe_frames(i, cell_.layer == Layer::in_place, latencies_of(i),
                                              control);
            });
        }
        if (!control.wait_until_ready(cell_.consumers)) {
            return false;
        }
        producer_ = children_.start("producer", [&] {
            place_client(cell_.placement, 0);
            return cell_.layer == Layer::base
                       ? produce_frames(cell_.payload_bytes, cell_.frames_per_second, control)
                       : publish_frames(cell_.payload_bytes, cell_.frames_per_second,
                                        cell_.layer == Layer::in_place, control);
        });
        return control.wait_until_ready(1);
    }

    bool stop() {
        control_->producer_stopping = 1;
        const bool producer_succeeded = children_.wait(producer_);
        control_->consumers_stopping = 1;
        sem_post(&control_->relay_quit);
        return children_.wait_all() && producer_succeeded;
    }

    Relay_Result result() {
        const Producer_Report& producer = control_->producer;
        const auto published = static_cast<double>(producer.published);
        const double written = published + static_cast<double>(producer.warm_up);
        Relay_Result result;
        result.frames_per_second = published / seconds_from_ns(producer.elapsed_ns);
        result.cpu_us_per_frame = children_.cpu_microseconds() / written;
        result.switches_per_frame = static_cast<double>(children_.context_switches()) / written;
        result.published = producer.published;
        result.dropped = producer.dropped;
        for (int i = 0; i < cell_.consumers; ++i) {
            add_consumer(i, result);
        }
        return result;
    }

    void add_consumer(int consumer, Relay_Result& result) {
        const Consumer_Report& report = control_->consumers[static_cast<std::size_t>(consumer)];
        result.missed.push_back(result.published - report.received);
        result.torn += report.torn;
        result.repeated += report.repeated;
        const auto noted = latencies_of(consumer).first(report.latencies);
        result.latencies_ns.insert(result.latencies_ns.end(), noted.begin(), noted.end());
    }

    const Relay_Cell cell_;
    const std::size_t latencies_per_consumer_;
    Shared_Memory<Run_Control> control_;
    Shared_Memory<std::int64_t> latencies_;
    Child_Processes children_;  // last: killed before the memory that they share goes
    std::size_t producer_ = 0;
};

}  // namespace

std::optional<Relay_Result> run_relay_cell(const Relay_Cell& cell) { return Relay_Run(cell).run(); }

}  // namespace zav_shm::bench
