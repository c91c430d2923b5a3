// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/status_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "apps/tool/json_text.h"
#include "control/center_page.h"
#include "control/center_status.h"
#include "ipc/file_content.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::tool {

namespace {

// 4096 channels with a dozen consumers each stay below this.
constexpr std::size_t file_bytes_max = std::size_t{16} << 20;

// Never below 0: the wall clock may have been set back meanwhile.
std::chrono::milliseconds age_of(const timespec& changed) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::int64_t ms = (std::int64_t{now.tv_sec} - changed.tv_sec) * 1000 +
                            (now.tv_nsec - changed.tv_nsec) / 1'000'000;
    return std::chrono::milliseconds(std::max<std::int64_t>(ms, 0));
}

// The page beside the status tells it in every PID namespace.
bool is_alive(const std::string& path, Json::UInt64 pid) {
    const std::string folder = path.substr(0, path.rfind('/'));
    const std::string root = shared_memory_folder;
    return pid <= static_cast<Json::UInt64>(std::numeric_limits<pid_t>::max()) &&
           is_center_alive(folder.starts_with(root) ? folder.substr(root.size()) : folder,
                           static_cast<pid_t>(pid));
}

}  // namespace

std::string status_path(const std::string& folder) { return center_status_path(folder); }

std::variant<Center_Status, Problem> read_center_status(const std::string& path) {
    const auto file = read_regular_file(path, file_bytes_max);
    if (!file && errno == ENOENT) {
        return Problem{Exit_Status::no_center,
                       "no center: there is no " + path +
                           "; start zav-shm-centerd, or say where with --folder"};
    }
    if (!file) {
        return Problem{Exit_Status::input_output,
                       "cannot read " + path + ": " + std::strerror(errno)};
    }
    Center_Status status;
    status.content = parsed_json(file->text);
    if (!status.content.isObject()) {
        return Problem{Exit_Status::input_output, path + " is not the status of a center: its " +
                                                      std::to_string(file->text.size()) +
                                                      " bytes are no JSON object"};
    }
    status.age = age_of(file->changed);
    status.is_alive = is_alive(path, count_at(status.content, "pid"));
    return status;
}

std::string json_of(const Center_Status& status) {
    Json::Value content = status.content;
    content["age_ms"] = Json::Int64{status.age.count()};
    content["alive"] = status.is_alive;
    content["stale"] = status.is_stale();
    return json_line(content) + "\n";
}

}  // namespace zav_shm::tool
