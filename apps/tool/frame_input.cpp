// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/frame_input.h"

#include "apps/tool/center_request.h"
#include "apps/tool/configured_name.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

Frame_Input::Frame_Input(const Common_Options& common, const Channel_Options& channel,
                         const std::string& producer, const Stop_Signal& stop)
    : stop_(stop),
      wait_(common.wait),
      channel_(channel),
      producer_(producer),
      consumer_channel_(channel_text(channel.name, channel.channel, channel.stream)),
      producer_channel_(channel_text(producer, channel.channel, channel.stream)),
      subscriber_({.name = channel.name,
                   .producer = producer,
                   .channel = channel.channel,
                   .stream = channel.stream,
                   .center_wait = common.wait,
                   .overflow = Overflow_Policy::drop_oldest}) {}

std::optional<Problem> Frame_Input::open() {
    for (const auto& [type, name] : {std::pair{control::type::receiver, &channel_.name},
                                     std::pair{control::type::distributor, &producer_}}) {
        if (auto problem = check_channel_end(type, *name, channel_.channel, channel_.stream,
                                             {wait_, &stop_})) {
            return problem;
        }
    }
    if (auto problem = problem_of(subscriber_.open(), consumer_channel_, wait_)) {
        return problem;
    }
    tell_state();
    return {};
}

void Frame_Input::tell_state() {
    const Frame_State now = subscriber_.state();
    if (now != told_) {
        complain(consumer_channel_ + " fed by " + producer_channel_ + ": " + name_of(now));
        told_ = now;
    }
}

}  // namespace zav_shm::tool
