// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/json_text.h"

namespace zav_shm::tool {

std::string json_line(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 3;
    builder["precisionType"] = "decimal";
    return Json::writeString(builder, value);
}

}  // namespace zav_shm::tool
