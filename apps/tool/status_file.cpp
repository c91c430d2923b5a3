// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/status_file.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "apps/tool/json_text.h"
#include "apps/watch/center_look.h"
#include "apps/watch/collector.h"
#include "apps/watch/snapshot_json.h"
#include "control/center_status.h"

namespace zav_shm::tool {

std::string status_path(const std::string& folder) { return center_status_path(folder); }

std::variant<Center_Status, Problem> read_center_status(const std::string& path) {
    std::size_t bytes = 0;
    auto file = watch::read_center_file(path, &bytes);
    if (!file && errno == ENOENT) {
        return Problem{Exit_Status::no_center,
                       "no center: there is no " + path +
                           "; start zav-shm-centerd, or say where with --folder"};
    }
    if (!file && errno == EBADMSG) {
        return Problem{Exit_Status::input_output, path + " is not the status of a center: its " +
                                                      std::to_string(bytes) +
                                                      " bytes are no JSON object"};
    }
    if (!file) {
        return Problem{Exit_Status::input_output,
                       "cannot read " + path + ": " + std::strerror(errno)};
    }
    return Center_Status{.content = std::move(file->content),
                         .age = std::chrono::milliseconds(file->age_ms),
                         .is_alive = file->is_alive};
}

std::string json_of(const Center_Status& status, const std::string& folder) {
    Json::Value content = status.content;
    content["age_ms"] = Json::Int64{status.age.count()};
    content["alive"] = status.is_alive;
    content["stale"] = status.is_stale();
    const Json::Value seen = watch::json_of(watch::Collector(folder).look());
    for (const std::string& member : seen.getMemberNames()) {
        content[member] = seen[member];
    }
    return json_line(content) + "\n";
}

}  // namespace zav_shm::tool
