// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/request_account.h"

#include <unistd.h>

#include "apps/log/log.h"
#include "control/control_protocol.h"

namespace zav_shm::centerd {

namespace {

namespace command = control::command;

constexpr const char* no_command = "other";

// The daemon asks its center by itself whether it answers, and is refused.
bool is_self_check(const Center_Event& event) {
    return event.command == command::query_shm && event.name.empty() && event.pid == getpid();
}

bool gives_a_producer(const Center_Event& event) {
    return event.refusal.empty() && event.type == control::type::receiver &&
           event.pair_name != control::no_producer &&
           (event.command == command::pair_source || event.command == command::register_end);
}

std::string object_of(const Center_Event& event) {
    if (event.command == command::query_shm) {
        return event.name;
    }
    return event.name + "/" + std::to_string(event.channel) + "/" + std::to_string(event.stream);
}

std::string text_of(const Center_Event& event) {
    const std::string process = "process " + std::to_string(event.pid);
    if (event.command == command::register_end && event.type == control::type::distributor) {
        return process + (event.ring ? " produces, with a history" : " produces");
    }
    if (event.command == command::register_end) {
        return process + " consumes from " + event.pair_name;
    }
    if (event.command == command::deregister_end) {
        return process + " leaves";
    }
    return event.pair_name == control::no_producer ? process + " pairs it with no producer"
                                                   : process + " pairs it with " + event.pair_name;
}

void log(const Center_Event& event) {
    if (!event.refusal.empty()) {
        write_log(Log_Level::warning, object_of(event),
                  event.command + " of process " + std::to_string(event.pid) +
                      " is refused: " + event.refusal);
    } else if (is_logged(Log_Level::info) && (event.command == command::register_end ||
                                              event.command == command::deregister_end ||
                                              event.command == command::pair_source)) {
        write_log(Log_Level::info, object_of(event), text_of(event));
    }
}

}  // namespace

void Request_Account::add(const Center_Event& event) {
    if (is_self_check(event)) {
        return;
    }
    {
        const Guard guard(mutex_);
        ++requests_[event.command.empty() ? no_command : event.command];
        refused_ += event.refusal.empty() ? 0U : 1U;
        pairings_ += gives_a_producer(event) ? 1U : 0U;
    }
    log(event);
}

void Request_Account::write_to(Json::Value& status) const {
    const Guard guard(mutex_);
    Json::Value& requests = status["requests"] = Json::Value(Json::objectValue);
    for (const char* const name :
         {command::register_end, command::deregister_end, command::pair_source, command::query_shm,
          command::kick_idle, command::query_status, no_command}) {
        const auto found = requests_.find(name);
        requests[name] = Json::UInt64{found == requests_.end() ? 0 : found->second};
    }
    status["refused"] = Json::UInt64{refused_};
    status["pairings"] = Json::UInt64{pairings_};
}

}  // namespace zav_shm::centerd
