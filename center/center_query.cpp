// SPDX-License-Identifier: Apache-2.0
//
// "query_shm": how a configured name is laid out, which a client asks before it registers.

#include "center/center_state.h"
#include "center/configured_names.h"
#include "center/shm_center.h"
#include "control/control_protocol.h"

using namespace zav_shm::control;
using zav_shm::Configured_Names;

namespace {

// The entry that the request asks about; null when it is not configured.
const _SHM_DIST_RECV_CONFIG_* entry_for(const ZAV_SHM_CONFIG* config, const Request& request) {
    if (request.type == type::distributor) {
        return Configured_Names::producers(config).find(request.name);
    }
    if (request.type == type::receiver) {
        return Configured_Names::consumers(config).find(request.name);
    }
    return nullptr;
}

// A name's stream list may hold the number of streams, one beyond the last; that has no page.
int page_size_of(const ZAV_SHM_CONFIG& config, int stream) {
    const auto streams = config.streams();
    const bool exists = stream >= 0 && stream < static_cast<int>(streams.size());
    return exists ? streams[static_cast<std::size_t>(stream)]->page_size : 0;
}

}  // namespace

int ZAV_SHM_CENTER::verify_query_msg(const std::string& text) {
    if (is_shut_down()) {
        return 0;
    }
    const Request request(text);
    if (entry_for(state_->config, request) != nullptr) {
        return 1;
    }
    const bool known_type = request.type == type::distributor || request.type == type::receiver;
    const std::string reason = known_type
                                   ? "Can't Find Shm Name " + request.name + " " + request.type
                                   : "Invalid Type " + request.type;
    return refuse(command::query_shm, status::invalid_name, reason, request.pid);
}

void ZAV_SHM_CENTER::shm_center_query_shm(const std::string& text) {
    if (verify_query_msg(text) == 0) {
        return;
    }
    const Request request(text);
    const ZAV_SHM_CONFIG& config = *state_->config;
    const auto* const entry = entry_for(&config, request);
    Json::Value reply;
    reply[field::command] = command::query_shm;
    reply[field::status] = status::success;
    reply[field::root_path] = config.root_path;
    reply[field::shm_path] = config.shm_path;
    reply[field::type] = request.type;
    reply[field::name] = request.name;
    reply[field::channel] = entry->channel;
    reply[field::stream] = static_cast<int>(entry->stream.size());
    for (const int stream : entry->stream) {
        reply[field::page_size].append(page_size_of(config, stream));
    }
    shm_center_reply_msg(reply, request.pid);
}
