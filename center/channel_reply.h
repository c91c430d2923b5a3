// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include "control/control_protocol.h"
#include "stream/channel_names.h"

namespace zav_shm {

/// The reply of a successful "register" or "pair_src": where the channel is to be found.
inline Json::Value channel_reply(const char* command, const IPC_SHM_CTRL_INFO& names) {
    Json::Value reply;
    reply[control::field::command] = command;
    reply[control::field::status] = control::status::success;
    reply[control::field::shm_path] = names.shm_path;
    reply[control::field::sem_path_src] = names.sem_path_src;
    reply[control::field::sem_path_dst] = names.sem_path_dst;
    reply[control::field::sem_path_exist] = names.sem_path_exist;
    return reply;
}

}  // namespace zav_shm
