// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "frame/reading_rules.h"

namespace zav_shm {

/// Reads "newest-key", "last-key-frame", "oldest", "live" (also called "newest"), or a time back,
/// such as "-2.5" or "-10s".
std::optional<Start> parse_start(const std::string& text);

/// What is wrong with such a text, or nothing.
std::string start_mistake(const std::string& text);

}  // namespace zav_shm
