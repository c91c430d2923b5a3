// SPDX-License-Identifier: Apache-2.0
#include "client/control_request.h"

#include "control/control_protocol.h"

namespace zav_shm {

Json::Value Requester::request(const char* command) const {
    Json::Value request;
    request[control::field::command] = command;
    request[control::field::type] = type;
    request[control::field::name] = name;
    request[control::field::pid] = pid;
    return request;
}

Json::Value Requester::request(const char* command, int channel, int stream) const {
    Json::Value about_pair = request(command);
    about_pair[control::field::channel] = channel;
    about_pair[control::field::stream] = stream;
    return about_pair;
}

}  // namespace zav_shm
