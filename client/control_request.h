// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/forwards.h>

#include <string>

namespace zav_shm {

/// Who asks the center: what every request of one client says of its sender.
struct Requester {
    const char* type;  // a word of control::type
    const std::string& name;
    int pid;  // addresses the reply

    /// A request about the name as a whole.
    Json::Value request(const char* command) const;

    /// A request about one pair of channel and stream, which are sent as they are.
    Json::Value request(const char* command, int channel, int stream) const;
};

}  // namespace zav_shm
