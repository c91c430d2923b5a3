// SPDX-License-Identifier: Apache-2.0
//
// "register" and "deregister". Registering a producer only hands out names: its segment and relay
// exist since the center's start. Registering a consumer pairs it with its producer first, so
// that the relay serves it already when the reply arrives.

#include "center/center_state.h"
#include "center/channel_reply.h"
#include "center/configured_names.h"
#include "center/shm_center.h"
#include "control/control_protocol.h"

using namespace zav_shm::control;
using zav_shm::Configured_Names;

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
        if (producer_is_allowed(state_->config, request)) {
            return 1;
        }
        reason = cannot_find(request);
    } else if (request.type == type::receiver) {
        if (consumer_is_allowed(state_->config, request)) {
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
        const IPC_SHM_SRC_CTRL_INFO names(key);
        shm_center_reply_msg(zav_shm::channel_reply(command::register_end, names), request.pid);
        return;
    }
    const Shm_Stream_Transmission_Pair_Index pair(request.name, request.channel, request.stream,
                                                  request.pair_name);
    state_->manager->add_distributor(pair);
    const IPC_SHM_DST_CTRL_INFO names(key, request.pair_name);
    shm_center_reply_msg(zav_shm::channel_reply(command::register_end, names), request.pid);
}

// Not checked against the configuration: whatever leaves is told that it has left.
void ZAV_SHM_CENTER::shm_center_deregister(const std::string& text) {
    if (is_shut_down()) {
        return;
    }
    const Request request(text);
    if (request.type == type::receiver) {
        state_->manager->remove_distributor({request.name, request.channel, request.stream});
    } else if (request.type != type::distributor) {
        refuse(command::deregister_end, status::fail, "Invalid Deregister Type " + request.type,
               request.pid);
        return;
    }
    shm_center_reply_msg(std::string(command::deregister_end), std::string(status::success),
                         request.pid);
}
