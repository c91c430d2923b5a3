// SPDX-License-Identifier: Apache-2.0
#include "device.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "ipc/monotonic_clock.h"
#include "ring/reader_card.h"
#include "support/threads.h"

using namespace std::chrono_literals;

namespace {

// A client of the fixed interface that stands still while the center kicks does not register again
// by itself.
std::string device_configuration(bool kicks) {
    return R"({
    "System": {"kick_idle": )" +
           std::string(kicks ? "true" : "false") + R"(},
    "Stream": [{"index": 0, "page_size": 65536}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0]}],
    "Receiver": [{"name": "CONSUMER_0", "channel": 1, "stream": [0]},
                 {"name": "CONSUMER_1", "channel": 1, "stream": [0]},
                 {"name": "CONSUMER_2", "channel": 1, "stream": [0]}]
})";
}

// In memory: a process that notes a frame in a file on a disk may have to wait for the disk.
constexpr const char* log_folder = "/dev/shm/logs";
constexpr const char* log_file_of_producer = "/dev/shm/logs/producer";
constexpr const char* arming_file = "/dev/shm/logs/armed";

constexpr std::int64_t window_ns = 300'000'000;

// sem_open() fills a file of a random name and then gives it the semaphore's.
bool is_unnamed_semaphore(const std::filesystem::path& file) {
    const std::string name = file.filename();
    return name.starts_with("sem.") && name.size() == 10;
}

// The daemon takes what is older than a minute.
void make_unnamed_semaphores_old() {
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        if (is_unnamed_semaphore(entry.path())) {
            std::filesystem::last_write_time(entry.path(),
                                             std::filesystem::file_time_type::clock::now() - 2min);
        }
    }
}

}  // namespace

void Device::SetUp() {
    Daemon_Process::SetUp();
    std::filesystem::create_directory(log_folder);
    logs_["producer"] = map_frame_log(log_file_of_producer);
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
    std::filesystem::remove_all("/dev/shm/shm/rings");  // left_behind() judges what is there
    std::filesystem::remove_all(log_folder);
    Daemon_Process::TearDown();
}

std::string Device::name_of(int subscriber) { return "CONSUMER_" + std::to_string(subscriber); }

std::string Device::log_file_of(int subscriber) {
    return std::string(log_folder) + "/" + name_of(subscriber);
}

Child_Process Device::started(std::vector<std::string> command,
                              const std::string& test_point) const {
    std::vector<std::string> environment = client_environment;
    if (!test_point.empty()) {
        std::filesystem::remove(arming_file);
        environment.push_back("ZAV_SHM_TEST_POINT=" + test_point + " " + arming_file);
    }
    if (!environment.empty()) {
        environment.insert(environment.begin(), "/usr/bin/env");
        command.insert(command.begin(), environment.begin(), environment.end());
    }
    return Child_Process(command);
}

void Device::arm() { std::ofstream(arming_file, std::ios::app); }

void Device::start_role(Role role, const std::string& test_point) {
    switch (role) {
        case Role::center:
            daemon.reset();
            daemon.emplace(
                started(command({"--clean", "--kick-interval", "1", "--config",
                                 configuration(device_configuration(!has_fixed_client()))}),
                        test_point));
            break;
        case Role::producer:
            start_producer(test_point);
            break;
        case Role::consumer:
            start_subscriber(0, test_point);
            break;
    }
}

void Device::start_producer(const std::string& test_point) {
    producer.reset();
    std::vector<std::string> words{ZAV_TEST_ROLE, "producer", std::to_string(fps_),
                                   std::to_string(history_bytes_), log_file_of_producer};
    if (producer_is_fixed_) {
        words = {ZAV_TEST_ROLE, "fixed_producer", std::to_string(fps_), log_file_of_producer};
    }
    producer.emplace(started(words, test_point));
}

void Device::start_subscriber(int index, const std::string& test_point, int work_ms) {
    subscribers.erase(index);
    std::vector<std::string> words{ZAV_TEST_ROLE, "subscriber", name_of(index),
                                   std::to_string(work_ms), log_file_of(index)};
    if (index == 0 && consumer_0_is_fixed_) {
        words = {ZAV_TEST_ROLE, "fixed_consumer", name_of(index), log_file_of(index)};
    }
    subscribers.emplace(index, started(words, test_point));
}

void Device::start_all(long fps) {
    fps_ = fps;
    start_role(Role::center);
    if (has_fixed_client()) {
        wait_for_center();  // who asks earlier, waits for an answer for ever
    }
    start_role(Role::producer);
    for (int i = 0; i < subscriber_count; ++i) {
        start_subscriber(i);
    }
}

bool Device::has_fixed_client() const { return producer_is_fixed_ || consumer_0_is_fixed_; }

void Device::wait_for_center() {
    for (auto line = daemon->read_line(); line && !line->starts_with("zav-shm-centerd ");) {
        line = daemon->read_line();
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
        make_unnamed_semaphores_old();
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

std::uint64_t Device::wrong_unverified_frames() {
    std::uint64_t wrong = 0;
    for (int i = 0; i < subscriber_count; ++i) {
        wrong += log_of(i).wrong_unverified;
    }
    return wrong;
}

std::uint64_t Device::frames_that_were_lost() {
    std::uint64_t lost = 0;
    for (int i = 0; i < subscriber_count; ++i) {
        const Frame_Log& log = log_of(i);
        for (std::size_t at = 0; at < std::min<std::size_t>(log.count, Frame_Log::capacity); ++at) {
            lost += log.entries.at(at).lost;
        }
    }
    return lost;
}

std::map<std::string, std::uint64_t> Device::registrations() {
    std::map<std::string, std::uint64_t> found;
    if (!producer_is_fixed_) {
        found["producer"] = log_of_producer().registrations;
    }
    for (int i = consumer_0_is_fixed_ ? 1 : 0; i < subscriber_count; ++i) {
        found[name_of(i)] = log_of(i).registrations;
    }
    return found;
}

bool Device::all_register_again(const std::map<std::string, std::uint64_t>& before,
                                std::chrono::milliseconds limit) {
    return becomes_true(
        [&] {
            const auto now = registrations();
            return std::all_of(now.begin(), now.end(), [&](const auto& each) {
                return each.second > before.at(each.first);
            });
        },
        limit);
}

std::vector<std::string> Device::left_behind() {
    namespace fs = std::filesystem;
    std::vector<std::string> left;
    for (const auto& entry : fs::recursive_directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename();
        const bool stays =
            name.find("lock") != std::string::npos || name.starts_with("CAM_LOOP_0_0");
        const bool is_card_of_killed =
            name.ends_with(".reader") &&
            !zav_shm::Seen_Card(entry.path().parent_path(), name).is_alive();
        const bool is_ours = entry.path().parent_path() == log_folder;
        if (entry.is_regular_file() && !is_ours && !stays && !is_card_of_killed) {
            left.push_back(entry.path());
        }
    }
    return left;
}
