// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <string>

#include "control/json_text.h"

namespace zav_shm::tool {

using zav_shm::count_at;
using zav_shm::flag_at;
using zav_shm::list_at;
using zav_shm::parsed_json;
using zav_shm::text_at;

/// A count as it is shown in tables.
inline std::string number_at(const Json::Value& object, const char* member) {
    return std::to_string(count_at(object, member));
}

/// One line without a line end; fractions with three decimals at most.
std::string json_line(const Json::Value& value);

}  // namespace zav_shm::tool
