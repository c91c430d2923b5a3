// SPDX-License-Identifier: Apache-2.0
//
// The idle kick and "query_status".

#include "center/center_state.h"
#include "center/shm_center.h"
#include "ipc/standard_output.h"

void ZAV_SHM_CENTER::enable_kick_idle_client(bool enable) { state_->kick_idle_enabled = enable; }

bool ZAV_SHM_CENTER::is_kick_idle_enabled() const { return state_->kick_idle_enabled; }

void ZAV_SHM_CENTER::kick_idle_client() {
    if (!is_shut_down()) {
        state_->manager->kick_idle_distributor(state_->kick_idle_enabled);
    }
}

void ZAV_SHM_CENTER::shm_center_query_status(const std::string& /*text*/) {
    if (!is_shut_down()) {
        zav_shm::standard_output() << *state_->manager << std::endl;
    }
}
