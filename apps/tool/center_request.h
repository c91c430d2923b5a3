// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"
#include "frame/frame_format.h"
#include "frame/link/control_exchange.h"

namespace zav_shm::tool {

/// How long a center is looked for, and what ends that early.
struct Patience {
    std::chrono::milliseconds wait{0};
    const Stop_Signal* stop = nullptr;
};

/// What a publisher or subscriber that could not be opened within the wait says.
///
/// @param channel  as channel_text() has it.
/// @return nothing when it is open.
std::optional<Problem> problem_of(const Opened& opened, const std::string& channel,
                                  std::chrono::milliseconds wait);

/// One exchange with the center, which is given the whole time to appear and to answer.
///
/// @param judge  tells whether a reply belongs to the request; a late one of an earlier request may
///               come first.
/// @return its reply, or why there is none to use; a refusal is a problem with the center's
///         reason.
std::variant<Json::Value, Problem> ask_center(const Json::Value& request, const Patience& patience,
                                              const Control_Exchange::Judge& judge = nullptr);

/// Whether a center answers at all; whatever it says will do.
bool center_answers(std::chrono::milliseconds wait);

/// Sends a request that has no reply.
std::optional<Problem> tell_center(const Json::Value& request, std::chrono::milliseconds wait);

/// Asks whether the center knows this name; `type` is a word of control::type.
std::variant<Json::Value, Problem> query_name(const char* type, const std::string& name,
                                              const Patience& patience);

}  // namespace zav_shm::tool
