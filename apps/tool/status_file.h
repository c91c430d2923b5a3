// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <chrono>
#include <string>
#include <variant>

#include "apps/tool/problem.h"

namespace zav_shm::tool {

/// What the center's daemon says of itself once a second.
struct Center_Status {
    Json::Value content;  // an object
    std::chrono::milliseconds age{0};
    bool is_alive = false;  // its process exists

    /// The daemon writes once a second; one that has not for so long hangs.
    bool is_stale() const { return age > std::chrono::seconds(3); }
};

/// "/dev/shm/FOLDER/center_status.json"
std::string status_path(const std::string& folder);

/// Reads the status file. It is a problem when there is none, and when it is none.
std::variant<Center_Status, Problem> read_center_status(const std::string& path);

/// The status as a table for people, with a line end.
std::string table_of(const Center_Status& status);

/// The file's members, "age_ms", "alive" and "stale", and what is to be seen of the folder's
/// streams (docs/status.schema.json); on one line, with a line end.
std::string json_of(const Center_Status& status, const std::string& folder);

}  // namespace zav_shm::tool
