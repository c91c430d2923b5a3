// SPDX-License-Identifier: Apache-2.0
#include "apps/text/reading_start.h"

#include "apps/text/duration_text.h"

namespace zav_shm {

std::optional<Start> parse_start(const std::string& text) {
    if (text == "newest-key") {
        return start::newest_key;
    }
    if (text == "live" || text == "newest") {
        return start::newest;
    }
    if (text == "last-key-frame") {
        return start::last_key_frame;
    }
    if (text == "oldest") {
        return start::oldest;
    }
    const auto back =
        text.empty() || text[0] != '-' ? std::nullopt : parse_duration(text.substr(1));
    return back ? std::optional(start::back(*back)) : std::nullopt;
}

std::string start_mistake(const std::string& text) {
    if (parse_start(text)) {
        return {};
    }
    return "'" + text +
           "' is none of newest-key, last-key-frame, oldest, live and a time back, such as -2.5 or "
           "-10s";
}

}  // namespace zav_shm
