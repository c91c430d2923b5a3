// SPDX-License-Identifier: Apache-2.0
//
// Order of a run: broker, producers, consumers; warm-up frames until every consumer has seen some;
// the measured stretch; producers stop sending; when the consumers have taken what was under way
// they leave, then the producers, then the broker. So a frame counts as lost only if the system
// lost it.

#include "bench/compare/run.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <span>
#include <stdexcept>
#include <string>

#include "bench/child_processes.h"
#include "bench/compare/process_cpu.h"
#include "bench/compare/roles.h"
#include "bench/compare/run_page.h"
#include "bench/monotonic_clock.h"
#include "bench/shared_memory.h"
#include "ipc/deadline.h"

namespace zav_shm::bench::compare {

namespace {

constexpr long ready_wait_ms = 30'000;  // 69 processes on a slow machine
constexpr std::int64_t start_wait_ns = 30 * ns_per_second;
constexpr std::int64_t drain_wait_ns = 5 * ns_per_second;
constexpr std::uint64_t warm_up_frames = 3;  // at each consumer
constexpr double poll_seconds = 0.005;
constexpr double settle_seconds = 0.1;  // between the warm-up and the measured stretch

/// Two of these make a measured stretch.
struct Sample {
    std::int64_t now_ns = 0;
    double producers_cpu = 0;  // seconds
    double consumers_cpu = 0;
    double broker_cpu = 0;
    std::uint64_t received = 0;  // by all consumers
};

class Run {
public:
    Run(const Transport& transport, const Load& load)
        : transport_(transport),
          load_(load),
          room_per_consumer_(latency_room(load)),
          latencies_(room_per_consumer_ *
                     static_cast<std::size_t>(load.channels() * load.consumers)) {}

    Run_Result run() {
        const std::int64_t begin_ns = monotonic_ns();
        start();
        wait_until([&] { return is_connected(); }, "a consumer got no frame in 30 s");
        Run_Result result;
        result.start_seconds = seconds_from_ns(monotonic_ns() - begin_ns);
        page_->counting = 1;
        sleep_seconds(settle_seconds);
        measure(result);
        stop();
        add_totals(result);
        return result;
    }

private:
    // Twice what the rate makes, since a late producer catches up.
    static std::size_t latency_room(const Load& load) {
        return static_cast<std::size_t>(2.0 * load.frames_per_second * (load.seconds + 1.0));
    }

    template <typename Visit>
    void for_each_consumer(Visit visit) {
        for (int camera = 0; camera < load_.cameras; ++camera) {
            for (int stream = 0; stream < load_.streams; ++stream) {
                for (int number = 0; number < load_.consumers; ++number) {
                    visit(camera, stream, number);
                }
            }
        }
    }

    std::span<std::int64_t> latencies_of(int camera, int stream, int number) {
        const int index = (camera * load_.streams + stream) * load_.consumers + number;
        return {&*latencies_ + static_cast<std::size_t>(index) * room_per_consumer_,
                room_per_consumer_};
    }

    void start() {
        if (transport_.has_broker()) {
            broker_ = children_.start("broker", [&] { return transport_.run_broker(load_); });
            wait_until([&] { return transport_.broker_is_ready(); }, "the broker was not ready");
        }
        for (int camera = 0; camera < load_.cameras; ++camera) {
            producers_.push_back(children_.start("producer", [&, camera] {
                return run_producer(transport_, load_, camera, *page_);
            }));
        }
        wait_until_ready(load_.channels());
        for (int camera = 0; camera < load_.cameras; ++camera) {
            for (int number = 0; number < load_.consumers; ++number) {
                consumers_.push_back(children_.start("consumer", [&, camera, number] {
                    return run_consumer(
                        transport_, load_, camera, number,
                        [&](int stream) { return latencies_of(camera, stream, number); }, *page_);
                }));
            }
        }
        wait_until_ready(load_.channels() * load_.consumers);
    }

    void wait_until_ready(int count) {
        const timespec deadline = wall_clock_deadline(ready_wait_ms);
        for (int i = 0; i < count; ++i) {
            if (sem_timedwait(&page_->ready, &deadline) != 0) {
                throw std::runtime_error("not all processes were ready in time");
            }
        }
        if (page_->failures != 0) {
            throw std::runtime_error("a process failed");
        }
    }

    template <typename Condition>
    static void wait_until(Condition condition, const char* otherwise) {
        const std::int64_t deadline_ns = monotonic_ns() + start_wait_ns;
        while (!condition()) {
            if (monotonic_ns() > deadline_ns) {
                throw std::runtime_error(otherwise);
            }
            sleep_seconds(poll_seconds);
        }
    }

    bool is_connected() {
        bool all = true;
        for_each_consumer([&](int camera, int stream, int number) {
            all = all && page_->consumer(camera, stream, number).uncounted >= warm_up_frames;
        });
        return all;
    }

    void measure(Run_Result& result) {
        if (load_.stops_the_last_consumer) {
            stop_the_last_consumer();
        }
        const Sample begin = sample();
        const std::uint64_t healthy_before = healthy().received;
        sleep_seconds(load_.seconds);
        const Sample end = sample();
        add_stretch(begin, end, result);
        if (load_.stops_the_last_consumer) {
            result.healthy_frames = healthy().received - healthy_before;
            result.greatest_gap_ms = greatest_gap_ms(end.now_ns);
            children_.kill(consumers_.back());
            consumers_.pop_back();
        }
    }

    Consumer_Count& healthy() { return page_->consumer(0, 0, 0); }

    void stop_the_last_consumer() {
        page_->watches_gaps = 1;
        children_.signal(consumers_.back(), SIGSTOP);
    }

    // The one that is still open at the end counts, too.
    double greatest_gap_ms(std::int64_t end_ns) {
        page_->watches_gaps = 0;
        const std::int64_t open_ns = end_ns - healthy().last_ns;
        const std::int64_t greatest_ns = healthy().greatest_gap_ns;
        return 1e3 * seconds_from_ns(std::max(greatest_ns, open_ns));
    }

    void add_stretch(const Sample& begin, const Sample& end, Run_Result& result) const {
        const double seconds = seconds_from_ns(end.now_ns - begin.now_ns);
        const auto received = static_cast<double>(end.received - begin.received);
        result.frames_per_second = received / seconds / (load_.channels() * load_.consumers);
        result.producers_cpu = (end.producers_cpu - begin.producers_cpu) / seconds;
        result.consumers_cpu = (end.consumers_cpu - begin.consumers_cpu) / seconds;
        result.broker_cpu = (end.broker_cpu - begin.broker_cpu) / seconds;
        result.all_cpu = result.producers_cpu + result.consumers_cpu + result.broker_cpu;
        result.cpu_s_per_1000 = received > 0 ? 1000 * result.all_cpu * seconds / received : 0;
    }

    Sample sample() {
        Sample now;
        now.now_ns = monotonic_ns();
        now.producers_cpu = cpu_seconds_of(producers_);
        now.consumers_cpu = cpu_seconds_of(consumers_);
        now.broker_cpu = transport_.has_broker() ? cpu_seconds_of({broker_}) : 0;
        now.received = received();
        return now;
    }

    double cpu_seconds_of(const std::vector<std::size_t>& children) const {
        double sum = 0;
        for (const std::size_t child : children) {
            sum += process_cpu_seconds(children_.pid(child));
        }
        return sum;
    }

    std::uint64_t received() {
        std::uint64_t sum = 0;
        for_each_consumer([&](int camera, int stream, int number) {
            sum += page_->consumer(camera, stream, number).received;
        });
        return sum;
    }

    void stop() {
        const std::vector<std::uint64_t> before = uncounted_of_running();
        page_->producers_stopping = 1;
        drain(before);
        page_->consumers_stopping = 1;
        wait_for(consumers_);
        page_->producers_leaving = 1;
        wait_for(producers_);
        if (transport_.has_broker()) {
            end_broker();
        }
    }

    // Frames arrive in order: a consumer that has an uncounted one again has all counted ones that
    // it will ever get.
    void drain(const std::vector<std::uint64_t>& before) {
        const std::int64_t deadline_ns = monotonic_ns() + drain_wait_ns;
        const auto is_behind = [&] {
            const std::vector<std::uint64_t> now = uncounted_of_running();
            return !std::ranges::equal(before, now, std::ranges::less());
        };
        while (is_behind() && monotonic_ns() < deadline_ns) {
            sleep_seconds(poll_seconds);
        }
    }

    std::vector<std::uint64_t> uncounted_of_running() {
        std::vector<std::uint64_t> counts;
        for_each_consumer([&](int camera, int stream, int number) {
            if (!was_stopped(camera, number)) {
                counts.push_back(page_->consumer(camera, stream, number).uncounted);
            }
        });
        return counts;
    }

    bool was_stopped(int camera, int number) const {
        return load_.stops_the_last_consumer && camera == load_.cameras - 1 &&
               number == load_.consumers - 1;
    }

    void end_broker() {
        if (transport_.end_signal() == SIGKILL) {
            children_.kill(broker_);
            return;
        }
        children_.signal(broker_, transport_.end_signal());
        wait_for({broker_});
    }

    void wait_for(const std::vector<std::size_t>& children) {
        for (const std::size_t child : children) {
            if (!children_.wait(child)) {
                throw std::runtime_error("a process failed");
            }
        }
    }

    void add_totals(Run_Result& result) {
        for_each_consumer([&](int camera, int stream, int number) {
            if (was_stopped(camera, number)) {
                return;
            }
            const Consumer_Count& count = page_->consumer(camera, stream, number);
            const std::uint64_t offered = page_->producer(camera, stream).offered;
            result.offered += offered;
            result.lost += offered - count.received;
            result.torn += count.torn;
            const auto noted = latencies_of(camera, stream, number).first(count.latencies);
            result.latencies_ns.insert(result.latencies_ns.end(), noted.begin(), noted.end());
        });
    }

    const Transport& transport_;
    const Load& load_;
    const std::size_t room_per_consumer_;
    Shared_Memory<Run_Page> page_;
    Shared_Memory<std::int64_t> latencies_;
    std::size_t broker_ = 0;
    std::vector<std::size_t> producers_;
    std::vector<std::size_t> consumers_;
    Child_Processes children_;  // last: killed before the memory that they share goes
};

}  // namespace

std::optional<Run_Result> run_load(const Transport& transport, const Load& load) {
    try {
        return Run(transport, load).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", transport.name().c_str(), error.what());
        return {};
    }
}

}  // namespace zav_shm::bench::compare
