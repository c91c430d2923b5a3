// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "stream/channel_names.h"

// The programs that system tests start. All print "ready" when they have opened what they need.
namespace roles {

using Arguments = std::vector<std::string>;

/// relay CONSUMERS: makes the slot and semaphores of CAM_LOOP and of consumers C0, C1, ..., and
/// relays until it is killed.
int relay(const Arguments& arguments);

/// producer FIRST LAST FPS: sends frames FIRST .. LAST, at full rate when FPS is 0. A frame that
/// nobody takes is offered again. Prints "sent=N refused=N".
int producer(const Arguments& arguments);

/// consumer NAME: receives until the last frame, or until none has come for 3 s, and prints
/// "frames=N missed=N wrong=N disordered=N stalled=N after_stall=N last=N gap_ms=N".
int consumer(const Arguments& arguments);

inline IPC_SHM_SRC_CTRL_INFO producer_names() { return IPC_SHM_SRC_CTRL_INFO({"CAM_LOOP", 0, 0}); }
inline IPC_SHM_DST_CTRL_INFO consumer_names(const std::string& name) {
    return IPC_SHM_DST_CTRL_INFO({name, 0, 0});
}
void print_ready();

}  // namespace roles
