// SPDX-License-Identifier: Apache-2.0
#include "center/center_action.h"

#include <array>
#include <cstdio>
#include <memory>

#include "center/shm_center.h"
#include "control/control_protocol.h"

using namespace zav_shm::control;

int SHM_CENTER_CLIENT_REGISTER::execute(const std::string& text) {
    center->shm_center_register(text);
    return 0;
}

int SHM_CENTER_CLIENT_DEREGISTER::execute(const std::string& text) {
    center->shm_center_deregister(text);
    return 0;
}

int SHM_CENTER_CLIENT_PAIR::execute(const std::string& text) {
    center->shm_center_pair(text);
    return 0;
}

int SHM_CENTER_QUERY_SHM::execute(const std::string& text) {
    center->shm_center_query_shm(text);
    return 0;
}

int SHM_CENTER_KICK_IDLE::execute(const std::string& text) {
    const bool enable = Fields(text).flag(field::enable);
    std::printf("In SHM_CENTER_KICK_IDLE execute, %d\n", enable ? 1 : 0);
    center->enable_kick_idle_client(enable);
    return 0;
}

int SHM_CENTER_QUERY_STATUS::execute(const std::string& text) {
    center->shm_center_query_status(text);
    return 0;
}

namespace {

template <class Action>
SHM_CENTER_ACTION* make(ZAV_SHM_CENTER* center) {
    return std::make_unique<Action>(center).release();
}

struct Entry {
    const char* command;
    SHM_CENTER_ACTION* (*make)(ZAV_SHM_CENTER* center);
};

constexpr std::array<Entry, 6> actions{{
    {command::register_end, make<SHM_CENTER_CLIENT_REGISTER>},
    {command::deregister_end, make<SHM_CENTER_CLIENT_DEREGISTER>},
    {command::pair_source, make<SHM_CENTER_CLIENT_PAIR>},
    {command::query_shm, make<SHM_CENTER_QUERY_SHM>},
    {command::kick_idle, make<SHM_CENTER_KICK_IDLE>},
    {command::query_status, make<SHM_CENTER_QUERY_STATUS>},
}};

}  // namespace

SHM_CENTER_ACTION* Factory_Shm_Center_Action(const std::string& text, ZAV_SHM_CENTER* center) {
    const Fields fields(text);
    if (!fields.is_text(field::command)) {
        return nullptr;
    }
    const std::string command = fields.text(field::command);
    for (const Entry& entry : actions) {
        if (command == entry.command) {
            return entry.make(center);
        }
    }
    return nullptr;
}
