// SPDX-License-Identifier: Apache-2.0
#include "device.h"

#include <csignal>

#include "ipc/monotonic_clock.h"
#include "support/threads.h"

using namespace std::chrono_literals;

namespace {

constexpr const char* device_configuration = R"({
    "System": {"kick_idle": true},
    "Stream": [{"index": 0, "page_size": 65536}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0]}],
    "Receiver": [{"name": "CONSUMER_0", "channel": 1, "stream": [0]},
                 {"name": "CONSUMER_1", "channel": 1, "stream": [0]},
                 {"name": "CONSUMER_2", "channel": 1, "stream": [0]}]
})";

constexpr std::int64_t window_ns = 300'000'000;

}  // namespace

void Device::SetUp() {
    Daemon_Process::SetUp();
    logs_["producer"] = map_frame_log(folder() + "/producer");
    for (int i = 0; i < subscriber_count; ++i) {
        logs_[name_of(i)] = map_frame_log(log_file_of(i));
    }
    for (const auto& [name, log] : logs_) {
        ASSERT_NE(log, nullptr) << name;
    }
}

void Device::TearDown() {
    end_all();
    for (const auto& [name, log] : logs_) {
        unmap_frame_log(log);
    }
    Daemon_Process::TearDown();
}

std::string Device::name_of(int subscriber) { return "CONSUMER_" + std::to_string(subscriber); }

std::string Device::log_file_of(int subscriber) const {
    return folder() + "/" + name_of(subscriber);
}

Child_Process Device::started(std::vector<std::string> command,
                              const std::string& test_point) const {
    std::vector<std::string> environment = client_environment;
    if (!test_point.empty()) {
        environment.push_back("ZAV_SHM_TEST_POINT=" + test_point);
    }
    if (!environment.empty()) {
        environment.insert(environment.begin(), "/usr/bin/env");
        command.insert(command.begin(), environment.begin(), environment.end());
    }
    return Child_Process(command);
}

void Device::start_role(Role role, const std::string& test_point) {
    switch (role) {
        case Role::center:
            daemon.reset();
            daemon.emplace(started(command({"--clean", "--kick-interval", "1", "--config",
                                            configuration(device_configuration)}),
                                   test_point));
            break;
        case Role::producer:
            producer.reset();
            producer.emplace(
                started({ZAV_TEST_ROLE, "producer", std::to_string(fps_), folder() + "/producer"},
                        test_point));
            break;
        case Role::consumer:
            start_subscriber(0, test_point);
            break;
    }
}

void Device::start_subscriber(int index, const std::string& test_point, int work_ms) {
    subscribers.erase(index);
    subscribers.emplace(index, started({ZAV_TEST_ROLE, "subscriber", name_of(index),
                                        std::to_string(work_ms), log_file_of(index)},
                                       test_point));
}

void Device::start_all(long fps) {
    fps_ = fps;
    start_role(Role::center);
    start_role(Role::producer);
    for (int i = 0; i < subscriber_count; ++i) {
        start_subscriber(i);
    }
}

Child_Process& Device::process_of(Role role) {
    switch (role) {
        case Role::center:
            return *daemon;
        case Role::producer:
            return *producer;
        case Role::consumer:
            break;
    }
    return subscribers.at(0);
}

void Device::end_all() {
    for (auto& [index, subscriber] : subscribers) {
        subscriber.signal(SIGTERM);
        EXPECT_EQ(subscriber.wait(10s), 0) << name_of(index);
    }
    subscribers.clear();
    if (producer) {
        producer->signal(SIGTERM);
        EXPECT_EQ(producer->wait(10s), 0);
        producer.reset();
    }
    if (daemon) {
        daemon->signal(SIGTERM);
        EXPECT_EQ(daemon->wait(10s), 0);
        daemon.reset();
    }
}

bool Device::is_at_full_rate() {
    const std::int64_t now = zav_shm::monotonic_ns();
    const auto expected = static_cast<std::uint64_t>(window_ns * fps_ / 1'000'000'000);
    for (int i = 0; i < subscriber_count; ++i) {
        const Frame_Log& log = log_of(i);
        const std::uint64_t count = log.count.load(std::memory_order_acquire);
        const std::uint64_t wanted = expected - 2;  // the edges of the window
        if (count < wanted ||
            log.entries[(count - wanted) % Frame_Log::capacity].ns < now - window_ns) {
            return false;
        }
    }
    return true;
}

bool Device::becomes_full(std::chrono::milliseconds limit) {
    return becomes_true([this] { return is_at_full_rate(); }, limit);
}

std::uint64_t Device::lost_to_stalls(std::int64_t from_ns) const {
    const std::int64_t stalled = machine.stalled_ns(from_ns, zav_shm::monotonic_ns());
    return stalled == 0 ? 0 : static_cast<std::uint64_t>(stalled * fps_ / 1'000'000'000 + 2);
}

std::uint64_t Device::wrong_frames() {
    std::uint64_t wrong = 0;
    for (int i = 0; i < subscriber_count; ++i) {
        wrong += log_of(i).wrong;
    }
    return wrong;
}
