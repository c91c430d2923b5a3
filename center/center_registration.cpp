// SPDX-License-Identifier: Apache-2.0
//
// "register" and "deregister". Registering a producer only hands out names: its segment and relay
// exist since the center's start. Registering a consumer pairs it with its producer first, so
// that the relay serves it already when the reply arrives.
//
// Ends with a ring say so. The consumer is then paired in the books of those that read rings and in
// no relay; the producer is told how large its ring may be.

#include "center/center_state.h"
#include "center/channel_reply.h"
#include "center/configured_names.h"
#include "center/shm_center.h"
#include "control/control_protocol.h"

using namespace zav_shm::control;
using zav_shm::Configured_Names;
using zav_shm::Ring_Consumers;
using zav_shm::Route_Page;

namespace {

bool producer_is_allowed(const ZAV_SHM_CONFIG* config, const Request& request) {
    return Configured_Names::producers(config).has(request.name, request.channel, request.stream);
}

// Unlike every other search, that for the producer ends at the first entry of its name, whatever
// its numbers.
bool consumer_is_allowed(const ZAV_SHM_CONFIG* config, const Request& request) {
    const auto* const producer = Configured_Names::producers(config).find(request.pair_name);
    return Configured_Names::consumers(config).has(request.name, request.channel, request.stream) &&
           producer != nullptr &&
           Configured_Names::covers(*producer, request.channel, request.stream);
}

// Negative numbers, and those behind the last stream, pass for slots, whose names they merely
// become a part of. There are no such rings.
bool may_have_ring(const ZAV_SHM_CONFIG* config, const Request& request) {
    return !request.ring || (request.channel >= 0 && request.stream >= 0 &&
                             static_cast<std::size_t>(request.stream) < config->streams().size());
}

std::string cannot_find(const Request& request) {
    return "Can't Find Channel " + std::to_string(request.channel) + ", Stream " +
           std::to_string(request.stream) + " " + request.type;
}

}  // namespace

int ZAV_SHM_CENTER::verify_register_msg(const std::string& text) {
    if (is_shut_down()) {
        return 0;
    }
    const Request request(text);
    std::string reason = "Invalid Register Type " + request.type;
    if (request.type == type::distributor) {
        if (producer_is_allowed(state_->config, request) &&
            may_have_ring(state_->config, request) &&
            state_->access.may_produce(request.name, request.pid)) {
            return 1;
        }
        reason = cannot_find(request);
    } else if (request.type == type::receiver) {
        if (consumer_is_allowed(state_->config, request) &&
            may_have_ring(state_->config, request) &&
            state_->access.may_read(request.pair_name, request.stream, request.pid)) {
            return 1;
        }
        reason = cannot_find(request);
    }
    return refuse(command::register_end, status::fail, reason, request.pid);
}

void ZAV_SHM_CENTER::shm_center_register(const std::string& text) {
    if (verify_register_msg(text) == 0) {
        return;
    }
    const Request request(text);
    const Shm_Stream_Transmission_Index key(request.name, request.channel, request.stream);
    if (request.type == type::distributor) {
        register_producer(request, key);
    } else {
        register_consumer(request, key);
    }
}

void ZAV_SHM_CENTER::register_producer(const Request& request,
                                       const Shm_Stream_Transmission_Index& key) {
    const IPC_SHM_SRC_CTRL_INFO names(key);
    Json::Value reply = zav_shm::channel_reply(command::register_end, names);
    state_->ring_consumers->producer_uses(key, request.ring ? Route_Page::ring : Route_Page::slot);
    if (request.ring) {
        const auto* const stream =
            state_->config->streams()[static_cast<std::size_t>(request.stream)];
        reply[field::ring] = true;
        reply[field::page_size] = stream->page_size;
        reply[field::history_bytes] = Json::Int64{ring_history_bytes(*stream)};
    }
    shm_center_reply_msg(reply, request.pid);
}

void ZAV_SHM_CENTER::register_consumer(const Request& request,
                                       const Shm_Stream_Transmission_Index& key) {
    const IPC_SHM_DST_CTRL_INFO names(key, request.pair_name);
    Json::Value reply = zav_shm::channel_reply(command::register_end, names);
    const Ring_Consumers::Member member{request.pid, request.card};
    if (request.ring) {
        state_->manager->remove_distributor(key);
        state_->ring_consumers->leave_relay(key, member);
        state_->ring_consumers->add(key, request.pair_name, member);
        reply[field::ring] = true;
        shm_center_reply_msg(reply, request.pid);
        return;
    }
    const long user = request.relay ? state_->ring_consumers->take_relay(key, member) : 0;
    if (user != 0) {
        refuse(command::register_end, status::fail,
               request.name + " is fed through its relay to process " + std::to_string(user),
               request.pid);
        return;
    }
    state_->manager->add_distributor(
        {request.name, request.channel, request.stream, request.pair_name});
    shm_center_reply_msg(reply, request.pid);
}

// Not checked against the configuration: whatever leaves is told that it has left.
void ZAV_SHM_CENTER::shm_center_deregister(const std::string& text) {
    if (is_shut_down()) {
        return;
    }
    const Request request(text);
    const Shm_Stream_Transmission_Index key(request.name, request.channel, request.stream);
    if (request.type == type::receiver && request.ring) {
        // Its relay is only the own process's to leave: another one may be the same consumer.
        const Ring_Consumers::Member member{request.pid, request.card};
        if (state_->ring_consumers->leave_relay(key, member)) {
            state_->manager->remove_distributor(key);
        }
        state_->ring_consumers->remove(key, member);
    } else if (request.type == type::receiver) {
        state_->manager->remove_distributor(key);
    } else if (request.type == type::distributor) {
        state_->ring_consumers->producer_uses(key, Route_Page::unknown);
    } else {
        refuse(command::deregister_end, status::fail, "Invalid Deregister Type " + request.type,
               request.pid);
        return;
    }
    shm_center_reply_msg(std::string(command::deregister_end), std::string(status::success),
                         request.pid);
}
