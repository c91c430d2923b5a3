// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/reading_start.h"

#include <chrono>
#include <cstdlib>

#include "apps/tool/argument_checks.h"
#include "apps/tool/options.h"

namespace zav_shm::tool {

std::optional<Start> parse_start(const std::string& text) {
    if (text == "newest") {
        return start::newest;
    }
    if (text == "last-key-frame") {
        return start::last_key_frame;
    }
    if (text == "oldest") {
        return start::oldest;
    }
    if (text.empty() || text[0] != '-' || !number_mistake(text.substr(1), 0, seconds_max).empty()) {
        return {};
    }
    const std::chrono::duration<double> back(std::strtod(text.c_str() + 1, nullptr));
    return start::back(std::chrono::ceil<std::chrono::nanoseconds>(back));
}

std::string start_mistake(const std::string& text) {
    if (parse_start(text)) {
        return {};
    }
    return "'" + text +
           "' is none of newest, last-key-frame, oldest and a number of seconds back, such as -2.5";
}

}  // namespace zav_shm::tool
