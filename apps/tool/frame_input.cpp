// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/frame_input.h"

#include <variant>

#include "apps/tool/center_request.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

Frame_Input::Frame_Input(const Common_Options& common, const Channel_Options& channel,
                         const std::string& producer)
    : wait_(common.wait),
      name_(channel.name),
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
    for (const auto& [type, name] : {std::pair{control::type::receiver, &name_},
                                     std::pair{control::type::distributor, &producer_}}) {
        const auto known = query_name(type, *name, wait_);
        if (const auto* problem = std::get_if<Problem>(&known)) {
            return *problem;
        }
    }
    const auto opened = subscriber_.open();
    if (opened.refused) {
        return Problem{Exit_Status::refused, "the center refuses " + consumer_channel_ +
                                                 " fed by " + producer_channel_ + ": " +
                                                 opened.reason};
    }
    if (!opened) {
        return Problem{Exit_Status::no_center, opened.reason};
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
