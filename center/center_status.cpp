// SPDX-License-Identifier: Apache-2.0
//
// The idle kick and "query_status".

#include <iostream>

#include "center/center_state.h"
#include "center/shm_center.h"

void ZAV_SHM_CENTER::enable_kick_idle_client(bool enable) { state_->kick_idle_enabled = enable; }

bool ZAV_SHM_CENTER::is_kick_idle_enabled() const { return state_->kick_idle_enabled; }

void ZAV_SHM_CENTER::kick_idle_client() {
    if (!is_shut_down()) {
        state_->manager->kick_idle_distributor(state_->kick_idle_enabled);
    }
}

void ZAV_SHM_CENTER::shm_center_query_status(const std::string& /*text*/) {
    if (!is_shut_down()) {
        std::cout << *state_->manager << std::endl;
    }
}
