// SPDX-License-Identifier: Apache-2.0
#include "control/center_status.h"

#include <algorithm>

#include "control/json_text.h"
#include "ipc/file_content.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm {

namespace {

// 4096 channels with a dozen consumers each stay below this.
constexpr std::size_t file_bytes_max = std::size_t{16} << 20;

std::chrono::system_clock::time_point moment_of(const timespec& time) {
    using std::chrono::system_clock;
    return system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(
        std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec)));
}

Json::Value read_status(const std::string& folder, std::chrono::system_clock::time_point since) {
    const auto file = read_regular_file(center_status_path(folder), file_bytes_max);
    return file && moment_of(file->changed) > since ? parsed_json(file->text) : Json::Value();
}

bool is(const Json::Value& entry, const Status_End& end) {
    return member_of(entry, "name") == end.name && member_of(entry, "channel") == end.channel &&
           member_of(entry, "stream") == end.stream;
}

bool feeds(const Json::Value& producer, const Status_End& consumer) {
    const Json::Value fed = list_at(producer, "consumers");
    return member_of(producer, "name").isString() &&
           std::any_of(fed.begin(), fed.end(),
                       [&consumer](const Json::Value& entry) { return is(entry, consumer); });
}

}  // namespace

std::string center_status_path(const std::string& folder) {
    return shared_memory_path(folder + "/center_status.json");
}

std::optional<std::string> producer_feeding(const std::string& folder, const Status_End& consumer,
                                            std::chrono::system_clock::time_point since) {
    for (const Json::Value& producer : list_at(read_status(folder, since), "channels")) {
        if (feeds(producer, consumer)) {
            return text_at(producer, "name");
        }
    }
    return {};
}

}  // namespace zav_shm
