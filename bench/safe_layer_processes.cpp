// SPDX-License-Identifier: Apache-2.0
#include "bench/safe_layer_processes.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_channel.h"
#include "bench/monotonic_clock.h"
#include "bench/pace.h"
#include "bench/silence.h"
#include "center/shm_center.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

namespace zav_shm::bench {

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t warm_up_frames = 10;
constexpr std::size_t history_bytes = std::size_t{2} << 20;

// As the payload's first and last bytes, so that a torn copy shows.
void stamp(std::span<std::byte> payload, std::uint64_t sequence) {
    std::memcpy(payload.data(), &sequence, sizeof sequence);
    std::memcpy(payload.data() + payload.size() - sizeof sequence, &sequence, sizeof sequence);
}

bool is_stamped(std::span<const std::byte> payload, std::uint64_t sequence) {
    return std::memcmp(payload.data(), &sequence, sizeof sequence) == 0 &&
           std::memcmp(payload.data() + payload.size() - sizeof sequence, &sequence,
                       sizeof sequence) == 0;
}

Json::Value named(const std::string& name) {
    Json::Value record;
    record["name"] = name;
    record["channel"] = 1;
    record["stream"].append(0);
    return record;
}

std::string configuration(std::size_t payload_bytes, int consumers) {
    Json::Value root;
    Json::Value stream;
    stream["index"] = 0;
    stream["page_size"] = static_cast<int>(payload_bytes);
    root["Stream"].append(stream);
    root["Distributor"].append(named(producer_name()));
    for (int i = 0; i < consumers; ++i) {
        root["Receiver"].append(named(consumer_name(i)));
    }
    return root.toStyledString();
}

/// What a consumer counts, in the order of the frames.
class Frame_Count {
public:
    Frame_Count(std::span<std::int64_t> latencies_ns, Consumer_Report& report)
        : latencies_ns_(latencies_ns), report_(report) {}

    void add(const ZAV_SHM_Frame_Header& header, bool whole, std::int64_t now_ns) {
        const bool is_warm_up = header.pts_ns == 0;
        report_.torn += whole ? 0U : 1U;
        if (!whole || is_warm_up) {
            return;
        }
        ++report_.received;
        if (report_.latencies < latencies_ns_.size()) {
            latencies_ns_[report_.latencies++] = now_ns - header.publish_ns;
        }
    }

private:
    const std::span<std::int64_t> latencies_ns_;
    Consumer_Report& report_;
};

void view_one(ZAV_SHM_Frame_Subscriber& consumer, Frame_View& view, Frame_Count& count) {
    if (consumer.receive_view(view, 100ms) == Receive_Status::frame) {
        const bool is_right = is_stamped(view.payload(), view.header.sequence);
        if (view.is_whole()) {
            count.add(view.header, is_right, view.received_ns);
        }
    }
}

void receive_one(ZAV_SHM_Frame_Subscriber& consumer, Received_Frame& frame, Frame_Count& count,
                 std::chrono::milliseconds timeout) {
    if (consumer.receive(frame, timeout) != Receive_Status::frame) {
        return;
    }
    count.add(frame.header, is_stamped(frame.payload(), frame.header.sequence), monotonic_ns());
}

}  // namespace

int run_center(std::size_t payload_bytes, int consumers, Run_Control& control) {
    silence_standard_output();
    ZAV_SHM_CONFIG config;
    if (!config.parse_config_with_json(configuration(payload_bytes, consumers)) ||
        config.verify_config() == 0) {
        return EXIT_FAILURE;
    }
    ZAV_SHM_CONFIG* borrowed = &config;
    ZAV_SHM_CENTER center(borrowed);
    sem_post(&control.ready);
    while (sem_wait(&control.relay_quit) != 0 && errno == EINTR) {
    }
    center.shutdown();
    return EXIT_SUCCESS;
}

int publish_frames(std::size_t payload_bytes, int frames_per_second, bool in_place,
                   Run_Control& control) {
    // At full rate nothing is to be lost.
    ZAV_SHM_Frame_Publisher producer({.name = producer_name(),
                                      .history_bytes = std::max(history_bytes, 8 * payload_bytes),
                                      .paced = frames_per_second == 0,
                                      .pace_limit = 10s});
    if (!producer.open()) {
        return EXIT_FAILURE;
    }
    std::vector<std::byte> payload(payload_bytes);
    Producer_Report report;
    std::int64_t begin_ns = monotonic_ns();
    bool counts = false;
    Pace pace(frames_per_second);
    sem_post(&control.ready);
    while (control.producer_stopping == 0) {
        pace.wait_for_next();
        const Frame_Info info{.pts = std::chrono::nanoseconds(counts ? 1 : 0)};
        const std::uint64_t sequence = producer.counters().frames + 1;
        bool written = false;
        if (in_place) {
            if (const auto room = producer.loan(payload_bytes); !room.empty()) {
                stamp(room.first(payload_bytes), sequence);
                written = producer.commit(payload_bytes, info).published();
            }
        } else {
            stamp(payload, sequence);
            written = producer.publish(payload, info).published();
        }
        if (counts) {
            ++(written ? report.published : report.dropped);
        } else if (written && ++report.warm_up == warm_up_frames) {
            counts = true;
            begin_ns = monotonic_ns();
        }
    }
    report.elapsed_ns = monotonic_ns() - begin_ns;
    control.producer = report;
    return EXIT_SUCCESS;
}

int subscribe_frames(int consumer, bool in_place, std::span<std::int64_t> latencies_ns,
                     Run_Control& control) {
    silence_standard_output();
    ZAV_SHM_Frame_Subscriber subscriber({.name = consumer_name(consumer),
                                         .producer = producer_name(),
                                         .overflow = Overflow_Policy::drop_oldest});
    if (!subscriber.open()) {
        return EXIT_FAILURE;
    }
    Consumer_Report report;
    Frame_Count count(latencies_ns, report);
    Received_Frame frame;
    Frame_View view;
    sem_post(&control.ready);
    while (control.consumers_stopping == 0) {
        if (in_place) {
            view_one(subscriber, view, count);
        } else {
            receive_one(subscriber, frame, count, 100ms);
        }
    }
    control.consumers[static_cast<std::size_t>(consumer)] = report;
    return EXIT_SUCCESS;
}

}  // namespace zav_shm::bench
