// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

namespace zav_shm {

/// One request that a center has taken from its queue, and what became of it. The fields are what
/// the client wrote, unchecked, but for `refusal`.
struct Center_Event {
    std::string command;  // "register", ...; empty: the text was no request that the center knows
    std::string type;
    std::string name;
    std::string pair_name;
    int channel = 0;
    int stream = 0;
    long pid = 0;
    bool ring = false;
    std::string refusal;  // the reason that the client was told; empty: served
};

/// Called on the center's receive thread when the reply has been sent. It must not throw, and the
/// next request waits for it.
using Center_Watcher = std::function<void(const Center_Event&)>;

}  // namespace zav_shm
