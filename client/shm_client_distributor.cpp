// SPDX-License-Identifier: Apache-2.0
#include "client/shm_client_distributor.h"

#include <cstdio>

#include "client/control_reply.h"
#include "client/control_request.h"
#include "control/control_protocol.h"
#include "ipc/standard_output.h"

using namespace zav_shm::control;
using zav_shm::Requester;

namespace {

// Flushed line by line: what was asked is to be seen while the center does not answer.
template <class Text>
void print(const char* label, const Text& json) {
    zav_shm::standard_output() << label << std::endl << json << std::endl;
}

}  // namespace

ZAV_SHM_CLIENT_DISTRIBUTOR::ZAV_SHM_CLIENT_DISTRIBUTOR(const std::string& configured_name,
                                                       bool auto_register)
    : name(configured_name) {
    if (query_shm() != 0 && auto_register) {
        reg_shm();
    }
}

// The endpoints that remain are given up, not deleted: the center still counts on them, and
// another thread of the application may be inside one.
ZAV_SHM_CLIENT_DISTRIBUTOR::~ZAV_SHM_CLIENT_DISTRIBUTOR() {
    dereg_shm();
    for (auto& [pair, endpoint] : endpoints_) {
        static_cast<void>(endpoint.release());
    }
}

Json::Value ZAV_SHM_CLIENT_DISTRIBUTOR::request(const char* command, int channel,
                                                int stream) const {
    return Requester{type::distributor, name, pid}.request(command, channel, stream);
}

// ---- query ----

// "Recv" stands in front of the request, too.
unsigned ZAV_SHM_CLIENT_DISTRIBUTOR::query_shm() {
    const Json::Value query = Requester{type::distributor, name, pid}.request(command::query_shm);
    print("Recv Query : ", query);
    const auto reply = exchange(written_on_one_line(query));
    if (!reply) {
        return 0;
    }
    print("Recv Query : ", *reply);
    if (reply->contradicts(field::command, command::query_shm)) {
        throw "Invalid Command";
    }
    if (reply->contradicts(field::status, status::success)) {
        zav_shm::standard_output() << "Status is " << reply->text(field::status) << std::endl;
        throw "Invalid Status";
    }
    layout_.take(*reply);
    ZAV_SHM_Stream_Distributor::set_shm_root_path(reply->text(field::root_path));
    return 1;
}

// ---- registration ----

int ZAV_SHM_CLIENT_DISTRIBUTOR::reg_shm() {
    layout_.for_each_pair([this](int channel, int stream) { reg_shm(channel, stream); });
    return 1;
}

int ZAV_SHM_CLIENT_DISTRIBUTOR::reg_shm(int channel) { return reg_shm(channel, 0); }

int ZAV_SHM_CLIENT_DISTRIBUTOR::reg_shm(int channel, int stream) {
    if (channel >= get_channel_num() || stream >= get_stream_num()) {
        return 0;
    }
    const Json::Value registration = request(command::register_end, channel, stream);
    print("Send Reg : ", registration);
    const auto reply = exchange(written_on_one_line(registration));
    if (!reply) {
        return 1;
    }
    print("Recv Reg : ", *reply);
    if (reply->answers(command::register_end)) {
        zav_shm::standard_output() << "Create " << reply->text(field::shm_path) << std::endl;
        insert(channel, stream, reply->open_endpoint<ZAV_SHM_Stream_Distributor>());
    }
    return 1;
}

// An endpoint that cannot be inserted goes again.
void ZAV_SHM_CLIENT_DISTRIBUTOR::insert(int channel, int stream,
                                        std::unique_ptr<ZAV_SHM_Stream_Distributor> endpoint) {
    if (!endpoints_.try_emplace({channel, stream}, std::move(endpoint)).second) {
        zav_shm::standard_output()
            << "Insert Channel " << channel << ", Stream " << stream << " Fail" << std::endl;
    }
}

int ZAV_SHM_CLIENT_DISTRIBUTOR::dereg_shm() {
    layout_.for_each_pair([this](int channel, int stream) { dereg_shm(channel, stream); });
    return 1;
}

int ZAV_SHM_CLIENT_DISTRIBUTOR::dereg_shm(int channel) { return dereg_shm(channel, 0); }

int ZAV_SHM_CLIENT_DISTRIBUTOR::dereg_shm(int channel, int stream) {
    const Json::Value farewell = request(command::deregister_end, channel, stream);
    print("Send DeReg : ", farewell);
    const auto reply = exchange(written_on_one_line(farewell));
    if (!reply) {
        return 1;
    }
    print("Recv DeReg : ", *reply);
    if (reply->grants(command::deregister_end)) {
        endpoints_.erase({channel, stream});
    }
    return 1;
}

// ---- endpoints ----

ZAV_SHM_Stream_Distributor* ZAV_SHM_CLIENT_DISTRIBUTOR::get_distributor(int channel, int stream) {
    while (true) {
        std::printf("In get_distributor %d, %d\n", channel, stream);
        const auto found = endpoints_.find({channel, stream});
        if (found != endpoints_.end()) {
            std::puts("Find OK");
            return found->second.get();
        }
        std::puts("Can't Find...Register it");
        reg_shm(channel, stream);
    }
}
