// SPDX-License-Identifier: Apache-2.0
//
// How much processor time one look at 34 streams with three readers each takes, as `zav-shm top`
// and a metrics server do it.
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "apps/watch/collector.h"
#include "apps/watch/snapshot_json.h"
#include "bench/percentile.h"
#include "bench/private_namespaces.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

namespace {

constexpr int stream_count = 34;
constexpr int readers_of_each = 3;
constexpr int looks = 300;

using namespace std::chrono_literals;

double cpu_ms() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

void print(const char* what, const std::vector<double>& times) {
    std::printf("%-28s median %.2f ms, 99 %% %.2f ms, greatest %.2f ms\n", what,
                zav_shm::bench::median(times), zav_shm::bench::percentile(times, 99),
                zav_shm::bench::percentile(times, 100));
}

}  // namespace

int main() {
    if (!zav_shm::bench::enter_private_namespaces()) {
        return 1;
    }
    std::vector<std::unique_ptr<ZAV_SHM_Frame_Publisher>> publishers;
    std::vector<std::unique_ptr<ZAV_SHM_Frame_Subscriber>> readers;
    for (int i = 0; i < stream_count; ++i) {
        publishers.push_back(
            std::make_unique<ZAV_SHM_Frame_Publisher>(ZAV_SHM_Frame_Publisher::Options{
                .name = "CAM_LOOP", .channel = i, .center_wait = 0ms}));
        (void)publishers.back()->open();
        for (int reader = 0; reader < readers_of_each; ++reader) {
            readers.push_back(std::make_unique<ZAV_SHM_Frame_Subscriber>(
                ZAV_SHM_Frame_Subscriber::Options{.producer = "CAM_LOOP", .channel = i}));
            (void)readers.back()->open();
        }
    }
    zav_shm::watch::Collector collector("shm");
    const std::vector<std::byte> payload(1000);
    zav_shm::Received_Frame frame;
    std::vector<double> look_times;
    std::vector<double> json_times;
    std::size_t seen = 0;
    for (int look = 0; look < looks; ++look) {
        for (const auto& publisher : publishers) {
            (void)publisher->publish(payload);
        }
        for (const auto& reader : readers) {
            (void)reader->receive(frame, 0ms);
        }
        const double begin = cpu_ms();
        const auto snapshot = collector.look();
        const double looked = cpu_ms();
        const Json::Value json = zav_shm::watch::json_of(snapshot);
        json_times.push_back(cpu_ms() - looked);
        look_times.push_back(looked - begin);
        seen = 0;
        for (const auto& stream : snapshot.streams) {
            seen += stream.consumers.size();
        }
    }
    std::printf("%zu streams, %zu readers\n", publishers.size(), seen);
    print("a look", look_times);
    print("its JSON", json_times);
    return 0;
}
