// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "apps/log/log.h"

namespace zav_shm::web {

/// What the command line of zav-shm-web says.
struct Options {
    std::string address = "127.0.0.1";  // to listen on, IPv4 or IPv6
    std::uint16_t port = 8080;          // 0: any free one
    std::string token_file;             // its first line is the token; needed beyond loopback
    unsigned viewers = 16;              // connections at a time
    unsigned viewers_per_address = 8;   // of them from one address
    std::string folder = "shm";         // of the segments below /dev/shm
    Log_Level log_level = log_level_default;
};

}  // namespace zav_shm::web
