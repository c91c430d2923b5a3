// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include "fuzz/fuzz_center.h"

namespace zav_shm::fuzz {

/// Demands what holds for every reply, whatever the request was, and returns its fields: it is
/// addressed to a process, fits into a record, is well-formed JSON by the strict rules, and has a
/// command with one of that command's status words, a refusal a reason, and a channel its names.
Json::Value require_valid_reply(const Reply& reply);

}  // namespace zav_shm::fuzz
