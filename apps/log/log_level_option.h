// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "apps/log/log.h"

namespace zav_shm {

/// Adds "--log-level" to a program's arguments.
inline void add_log_level(CLI::App& app, Log_Level& level) {
    const auto mistake = [](const std::string& text) {
        return log_level_of(text) ? std::string() : "'" + text + "' is none of " + log_level_names;
    };
    app.add_option_function<std::string>(
           "--log-level", [&level](const std::string& text) { level = *log_level_of(text); },
           std::string("What is logged: this and what matters more, of ") + log_level_names)
        ->type_name("LEVEL")
        ->check(CLI::Validator(mistake, ""))
        ->default_str("notice");
}

}  // namespace zav_shm
