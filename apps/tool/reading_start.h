// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "frame/reading_rules.h"

namespace zav_shm::tool {

/// Reads "newest", "last-key-frame", "oldest", or a number of seconds back, such as "-2.5".
std::optional<Start> parse_start(const std::string& text);

/// What is wrong with such a text, or nothing.
std::string start_mistake(const std::string& text);

}  // namespace zav_shm::tool
