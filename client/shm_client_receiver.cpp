// SPDX-License-Identifier: Apache-2.0
#include "client/shm_client_receiver.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client/control_reply.h"
#include "client/control_request.h"
#include "control/control_protocol.h"
#include "ipc/standard_output.h"

using namespace zav_shm::control;
using zav_shm::Control_Reply;
using zav_shm::Requester;

// ---- life ----

ZAV_SHM_CLIENT_RECEIVER::ZAV_SHM_CLIENT_RECEIVER(const std::string& configured_name)
    : name(configured_name) {
    query_shm();
}

ZAV_SHM_CLIENT_RECEIVER::ZAV_SHM_CLIENT_RECEIVER(const std::string& configured_name,
                                                 const std::string& producer)
    : name(configured_name), pair_name(producer) {
    if (query_shm() != 0) {
        reg_shm();
    }
}

// The endpoints that remain are given up, not deleted: the center still counts on them, and
// another thread of the application may be inside one.
ZAV_SHM_CLIENT_RECEIVER::~ZAV_SHM_CLIENT_RECEIVER() {
    const auto print = [this](const char* when) {
        std::printf("In ZAV_SHM_CLIENT_RECEIVER %p (%d, %d) dereg_shm %s\n",
                    static_cast<const void*>(this), get_channel_num(), get_stream_num(), when);
    };
    print("Start");
    dereg_shm();
    print("End");
    for (auto& [pair, endpoint] : endpoints_) {
        static_cast<void>(endpoint.release());
    }
}

Json::Value ZAV_SHM_CLIENT_RECEIVER::request(const char* command, int channel, int stream) const {
    return Requester{type::receiver, name, pid}.request(command, channel, stream);
}

// ---- query ----

unsigned ZAV_SHM_CLIENT_RECEIVER::query_shm() {
    const Requester self{type::receiver, name, pid};
    const auto reply = exchange(written_on_one_line(self.request(command::query_shm)));
    if (!reply) {
        return 0;
    }
    if (reply->contradicts(field::command, command::query_shm)) {
        throw "Invalid Command";
    }
    if (reply->contradicts(field::status, status::success)) {
        throw "Invalid Status";
    }
    layout_.take(*reply);
    ZAV_SHM_Stream_Receiver::set_shm_root_path(reply->text(field::root_path));
    return 1;
}

// ---- registration ----

int ZAV_SHM_CLIENT_RECEIVER::reg_shm() {
    layout_.for_each_pair([this](int channel, int stream) { reg_shm(channel, stream); });
    return 1;
}

int ZAV_SHM_CLIENT_RECEIVER::reg_shm(int channel) { return reg_shm(channel, 0); }

int ZAV_SHM_CLIENT_RECEIVER::reg_shm(int channel, int stream) {
    return pair_name.empty() ? 0 : reg_shm(channel, stream, pair_name);
}

int ZAV_SHM_CLIENT_RECEIVER::reg_shm(const std::string& producer) {
    int result = 1;
    layout_.for_each_pair(
        [&](int channel, int stream) { result = reg_shm(channel, stream, producer); });
    return result;
}

int ZAV_SHM_CLIENT_RECEIVER::reg_shm(int channel, const std::string& producer) {
    return reg_shm(channel, 0, producer);
}

int ZAV_SHM_CLIENT_RECEIVER::reg_shm(int channel, int stream, const std::string& producer) {
    Json::Value registration = request(command::register_end, channel, stream);
    registration[field::pair_name] = producer;
    const auto reply = exchange(written_on_one_line(registration));
    if (!reply || !reply->grants(command::register_end)) {
        return 1;
    }
    pair_name = producer;
    if (!endpoints_.contains({channel, stream})) {
        insert(channel, stream, *reply);
    }
    return 1;
}

// An endpoint that cannot be inserted goes again.
void ZAV_SHM_CLIENT_RECEIVER::insert(int channel, int stream, const Control_Reply& reply) {
    auto endpoint = reply.open_endpoint<ZAV_SHM_Stream_Receiver>();
    if (!endpoints_.try_emplace({channel, stream}, std::move(endpoint)).second) {
        zav_shm::standard_output()
            << "Insert Channel " << channel << ", Stream " << stream << " Fail" << std::endl;
        std::printf("Fail Reason : %s\n", std::strerror(errno));
    }
}

int ZAV_SHM_CLIENT_RECEIVER::dereg_shm() {
    std::printf("Before dereg_shm size %d\n", static_cast<int>(endpoints_.size()));
    layout_.for_each_pair([this](int channel, int stream) {
        std::printf("dereg_shm (%d, %d)\n", channel, stream);
        dereg_shm(channel, stream);
    });
    std::printf("After dereg_shm size %d\n", static_cast<int>(endpoints_.size()));
    return 1;
}

int ZAV_SHM_CLIENT_RECEIVER::dereg_shm(int channel) { return dereg_shm(channel, 0); }

int ZAV_SHM_CLIENT_RECEIVER::dereg_shm(int channel, int stream) {
    const auto farewell = request(command::deregister_end, channel, stream);
    const auto reply = exchange(written_on_one_line(farewell));
    if (reply && reply->grants(command::deregister_end)) {
        endpoints_.erase({channel, stream});
    }
    return 1;
}

// ---- pairing ----

void ZAV_SHM_CLIENT_RECEIVER::pair_src(const std::string& producer) {
    layout_.for_each_pair([&](int channel, int stream) { pair_one(channel, stream, producer); });
}

// This request alone is indented by tabs.
void ZAV_SHM_CLIENT_RECEIVER::pair_one(int channel, int stream, const std::string& producer) {
    Json::Value pairing = request(command::pair_source, channel, stream);
    pairing[field::pair_name] = producer;
    const auto reply = exchange(written_with_tabs(pairing));
    if (!reply) {
        return;
    }
    if (!reply->grants(command::pair_source)) {
        zav_shm::standard_output() << "Invalid Pair";
        throw "Invalid Pair";
    }
    const std::string segment = reply->text(field::shm_path);
    std::printf("Switch Shm to %s\n", segment.c_str());
    pair_name = producer;
    if (ZAV_SHM_Stream_Receiver* const endpoint = get_receiver(channel, stream)) {
        endpoint->change_shm(segment.c_str());
    } else {
        insert(channel, stream, *reply);
    }
}

// ---- endpoints ----

ZAV_SHM_Stream_Receiver* ZAV_SHM_CLIENT_RECEIVER::get_receiver(int channel, int stream) {
    while (true) {
        const auto found = endpoints_.find({channel, stream});
        if (found != endpoints_.end()) {
            return found->second.get();
        }
        std::puts("Can't Find..., Register it");
        reg_shm(channel, stream);
    }
}

bool ZAV_SHM_CLIENT_RECEIVER::is_register(int channel, int stream) {
    return get_receiver(channel, stream) != nullptr;
}
