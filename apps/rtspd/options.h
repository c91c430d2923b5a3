// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "apps/log/log.h"
#include "apps/rtspd/stream_address.h"

namespace zav_shm::rtspd {

/// A path that is served although its stream may not have come yet.
struct Mount {
    std::string path;  // "/front_door"
    Stream_Address stream;
};

/// What the server was told on its command line.
struct Options {
    std::string address = "127.0.0.1";
    std::uint16_t port = 8554;  // 0: any
    std::string folder = "shm";
    std::vector<Mount> mounts;
    bool only_mounts = false;
    std::chrono::milliseconds wait{5000};
    std::size_t cache_bytes = std::size_t{16} << 20U;
    std::chrono::milliseconds stall{10'000};

    unsigned clients = 64;
    unsigned clients_per_address = 32;
    std::string user_file;  // empty: everybody may play
    bool anonymous = false;
    std::string tls_certificate;  // empty: no TLS
    std::string tls_key;          // empty: in the file of the certificate

    Log_Level log_level = log_level_default;
};

}  // namespace zav_shm::rtspd
