// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "apps/tool/problem.h"

namespace zav_shm::tool {

/// One exchange with the center, which is given the whole time to appear.
///
/// @return its reply, or why there is none to use; a refusal is a problem with the center's
///         reason.
std::variant<Json::Value, Problem> ask_center(const Json::Value& request,
                                              std::chrono::milliseconds wait);

/// Sends a request that has no reply.
std::optional<Problem> tell_center(const Json::Value& request, std::chrono::milliseconds wait);

/// Asks whether the center knows this name; `type` is a word of control::type.
std::variant<Json::Value, Problem> query_name(const char* type, const std::string& name,
                                              std::chrono::milliseconds wait);

}  // namespace zav_shm::tool
