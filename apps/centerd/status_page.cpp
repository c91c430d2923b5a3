// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/status_page.h"

#include <json/json.h>
#include <semaphore.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <ctime>
#include <utility>

#include "apps/centerd/ring_consumer_status.h"
#include "control/center_status.h"
#include "control/control_protocol.h"
#include "control/replaced_file.h"
#include "ipc/random_epoch.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::centerd {

namespace {

using std::chrono::system_clock;

std::uint64_t utc_ns() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(system_clock::now().time_since_epoch())
            .count());
}

// "2026-03-01T08:15:00Z"
std::string as_text(std::uint64_t utc) {
    const auto seconds = static_cast<time_t>(utc / 1'000'000'000U);
    std::tm parts{};
    std::array<char, 32> text{};
    gmtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

Json::Value json_of(const Consumer_Snapshot& consumer) {
    Json::Value value;
    value["name"] = consumer.name;
    value["channel"] = consumer.channel;
    value["stream"] = consumer.stream;
    value["frames"] = Json::UInt64{consumer.frames};
    value["missed_in_row"] = consumer.missed_in_row;
    return value;
}

Json::Value json_of(const Relay_Snapshot& relay) {
    Json::Value value;
    value["name"] = relay.name;
    value["channel"] = relay.channel;
    value["stream"] = relay.stream;
    value["cycles"] = Json::UInt64{relay.cycles};
    value["frames"] = Json::UInt64{relay.frames};
    value["presence_timeouts"] = Json::UInt64{relay.presence_timeouts};
    value["frame_timeouts"] = Json::UInt64{relay.frame_timeouts};
    value["read_timeouts"] = Json::UInt64{relay.read_timeouts};
    value["late_read_timeouts"] = Json::UInt64{relay.late_read_timeouts};
    value["live"] = relay.live;
    value["consumers"] = Json::Value(Json::arrayValue);
    for (const Consumer_Snapshot& consumer : relay.consumers) {
        value["consumers"].append(json_of(consumer));
    }
    return value;
}

}  // namespace

Status_Page::Status_Page(std::string folder, std::string configuration, Json::Value names,
                         const Request_Account& requests, File_Access access)
    : folder_(std::move(folder)),
      configuration_(std::move(configuration)),
      names_(std::move(names)),
      requests_(requests),
      access_(access) {
    page_.epoch = random_epoch();
    page_.pid = static_cast<std::uint32_t>(getpid());
    page_.semaphore_bytes = sizeof(sem_t);
    page_.started_utc_ns = utc_ns();
}

bool Status_Page::has_page() const {
    const auto found = read_center_page(folder_);
    return found && found->epoch == page_.epoch;
}

bool Status_Page::write_page() {
    held_page_ = hold_center_page(folder_, page_, access_);
    return held_page_.is_open();
}

bool Status_Page::write_status(const ZAV_SHM_CENTER& center) const {
    return replace_file(status_path(), status_of(center) + "\n", access_);
}

std::string Status_Page::status_of(const ZAV_SHM_CENTER& center) const {
    Json::Value status;
    status["pid"] = page_.pid;
    status["epoch"] = Json::UInt64{page_.epoch};
    status["started_utc"] = as_text(page_.started_utc_ns);
    status["written_utc"] = as_text(utc_ns());
    status["version"] = ZAV_SHM_VERSION;
    status["configuration"] = configuration_;
    status["kick_idle"] = center.is_kick_idle_enabled();
    status["names"] = names_;
    requests_.write_to(status);
    status["channels"] = Json::Value(Json::arrayValue);
    for (const Relay_Snapshot& relay : center.manager()->snapshot()) {
        status["channels"].append(json_of(relay));
    }
    status["ring_consumers"] =
        ring_consumer_status(rings_folder(folder_), center.ring_consumers()->snapshot());
    status["refused_outsiders"] = Json::UInt64{center.refused_outsiders().count};
    return control::written_on_one_line(status);
}

void Status_Page::remove() const {
    remove_center_page(folder_);
    unlink(status_path().c_str());
    // What a center that was killed while it wrote has left.
    unlink((center_page_path(folder_) + ".new").c_str());
    unlink((status_path() + ".new").c_str());
}

std::string Status_Page::status_path() const { return center_status_path(folder_); }

}  // namespace zav_shm::centerd
