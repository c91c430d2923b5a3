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
    if (request.ring) {
        return verify_ring_pair_msg(request);
    }
    const bool consumer_known =
        request.type == type::receiver &&
        Configured_Names::consumers(state_->config).find(request.name) != nullptr;
    const bool producer_known =
        Configured_Names::producers(state_->config).find(request.pair_name) != nullptr &&
        state_->access.may_read(request.pair_name, request.stream, request.pid);
    if (consumer_known && producer_known) {
        return 1;
    }
    const std::string reason = consumer_known ? "Can't Find Shm Pair Name " + request.pair_name
                                              : "Can't Find Shm Name " + request.name;
    return refuse(command::pair_source, status::invalid_name, reason, request.pid);
}

// A consumer that reads rings is told of a channel that is not there; it may be fed by nobody.
int ZAV_SHM_CENTER::verify_ring_pair_msg(const Request& request) {
    const auto consumers = Configured_Names::consumers(state_->config);
    const auto producers = Configured_Names::producers(state_->config);
    std::string reason;
    if (request.type != type::receiver || consumers.find(request.name) == nullptr) {
        reason = "Can't Find Shm Name " + request.name;
    } else if (request.pair_name != no_producer &&
               (producers.find(request.pair_name) == nullptr ||
                !state_->access.may_read(request.pair_name, request.stream, request.pid))) {
        reason = "Can't Find Shm Pair Name " + request.pair_name;
    } else if (request.pair_name != no_producer && !producer_has_channel(request)) {
        reason = request.pair_name + " has no channel " + std::to_string(request.channel) +
                 ", stream " + std::to_string(request.stream);
    } else {
        return 1;
    }
    return refuse(command::pair_source, status::invalid_name, reason, request.pid);
}

void ZAV_SHM_CENTER::shm_center_pair(const std::string& text) {
    if (verify_pair_msg(text) == 0) {
        return;
    }
    const Request request(text);
    const Shm_Stream_Transmission_Index key(request.name, request.channel, request.stream);
    if (request.ring) {
        pair_ring_consumer(request, key);
        return;
    }
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

// Where it was in a relay, with its own process in between, it leaves that: the producer that is to
// feed it now may have a ring.
void ZAV_SHM_CENTER::pair_ring_consumer(const Request& request,
                                        const Shm_Stream_Transmission_Index& key) {
    const bool is_to_be_fed = request.pair_name != no_producer;
    const std::string producer = is_to_be_fed ? request.pair_name : std::string();
    if (state_->ring_consumers->leave_relay(key, {request.pid, request.card})) {
        state_->manager->remove_distributor(key);
    }
    state_->ring_consumers->add(key, producer, {request.pid, request.card});
    if (is_to_be_fed) {
        const IPC_SHM_DST_CTRL_INFO names(key, producer);
        shm_center_reply_msg(zav_shm::channel_reply(command::pair_source, names), request.pid);
    } else {
        shm_center_reply_msg(std::string(command::pair_source), std::string(status::success),
                             request.pid);
    }
}

bool ZAV_SHM_CENTER::producer_has_channel(const Request& request) const {
    return request.channel >= 0 && request.stream >= 0 &&
           Configured_Names::producers(state_->config)
               .has(request.pair_name, request.channel, request.stream);
}
