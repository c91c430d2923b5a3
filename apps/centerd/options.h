// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "apps/log/log.h"

namespace zav_shm::centerd {

/// What the daemon was told on its command line.
struct Options {
    std::string config_path;                        // empty: the built-in defaults
    bool check = false;                             // print the plan and make nothing
    std::string hand_over;                          // give a user what is there, and end
    bool clean = false;                             // remove the kernel objects at the end
    std::chrono::milliseconds kick_interval{5000};  // 0: never
    std::string group;                              // empty: the process's own
    std::optional<mode_t> mode;                     // 0600, 0660 or 0666
    Log_Level log_level = log_level_default;
};

}  // namespace zav_shm::centerd
