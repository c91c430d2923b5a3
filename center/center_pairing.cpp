// SPDX-License-Identifier: Apache-2.0
//
// "pair_src": moves a running consumer from the producer that feeds it to another one, or to
// none. What fed it stops first, so that never two producers feed one consumer.
//
// A consumer that reads a ring is in no relay: its route changes instead, whoever asks for it.

#include <cstdio>

#include "center/center_state.h"
#include "center/channel_reply.h"
#include "center/configured_names.h"
#include "center/shm_center.h"
#include "control/control_protocol.h"

using namespace zav_shm::control;
using zav_shm::Configured_Names;

// Names only: a channel or stream that does not exist is left to the manager, which ignores it.
// "NONE" passes only where a producer is really called so.
int ZAV_SHM_CENTER::verify_pair_msg(const std::string& text) {
    if (is_shut_down()) {
        return 0;
    }
    const Request request(text);
    const bool consumer_known =
        request.type == type::receiver &&
        Configured_Names::consumers(state_->config).find(request.name) != nullptr;
    const bool producer_known =
        Configured_Names::producers(state_->config).find(request.pair_name) != nullptr;
    if (consumer_known && producer_known) {
        return 1;
    }
    const std::string reason = consumer_known ? "Can't Find Shm Pair Name " + request.pair_name
                                              : "Can't Find Shm Name " + request.name;
    return refuse(command::pair_source, status::invalid_name, reason, request.pid);
}

void ZAV_SHM_CENTER::shm_center_pair(const std::string& text) {
    if (verify_pair_msg(text) == 0) {
        return;
    }
    const Request request(text);
    const Shm_Stream_Transmission_Index key(request.name, request.channel, request.stream);
    const bool reads_ring = state_->ring_consumers->has(key);
    if (reads_ring && (request.pair_name == no_producer || producer_has_channel(request))) {
        state_->ring_consumers->pair(
            key, request.pair_name == no_producer ? std::string() : request.pair_name);
    }
    std::puts("In shm_center_pair remove_distributor");
    const bool was_relayed = state_->manager->is_paired(key);
    state_->manager->remove_distributor(key);
    if (request.pair_name == no_producer) {
        shm_center_reply_msg(std::string(command::pair_source), std::string(status::success),
                             request.pid);
        return;
    }
    if (was_relayed || !reads_ring) {
        state_->manager->add_distributor(
            {request.name, request.channel, request.stream, request.pair_name});
    }
    const IPC_SHM_DST_CTRL_INFO names(key, request.pair_name);
    shm_center_reply_msg(zav_shm::channel_reply(command::pair_source, names), request.pid);
}

bool ZAV_SHM_CENTER::producer_has_channel(const Request& request) const {
    return request.channel >= 0 && request.stream >= 0 &&
           Configured_Names::producers(state_->config)
               .has(request.pair_name, request.channel, request.stream);
}
