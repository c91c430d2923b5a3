// SPDX-License-Identifier: Apache-2.0
#include "frame/reply_judge.h"

#include <algorithm>
#include <initializer_list>
#include <string>

#include "control/control_protocol.h"
#include "control/json_text.h"
#include "stream/channel_names.h"

namespace zav_shm {

namespace {

namespace field = control::field;
namespace command = control::command;

/// What a request is about.
struct About {
    explicit About(const Json::Value& request)
        : type(text_at(request, field::type)),
          name(text_at(request, field::name)),
          slot(text_at(request, field::pair_name)),
          channel(number_at(request, field::channel)),
          stream(number_at(request, field::stream)) {
        slot = slot.empty() ? name : slot;
    }

    std::string type;
    std::string name;
    std::string slot;  // whose it is: the producer's own, or that of the one a consumer wants
    int channel;
    int stream;
};

// Whatever else the center may say, with these words it always names what it was asked for.
bool is_other_refusal(const std::string& reason, const std::string& begin,
                      std::initializer_list<std::string> own_ends) {
    return reason.compare(0, begin.size(), begin) == 0 &&
           std::none_of(own_ends.begin(), own_ends.end(),
                        [&](const std::string& end) { return reason == begin + end; });
}

bool is_or_is_missing(const Json::Value& reply, const char* name, const std::string& expected) {
    const std::string said = text_at(reply, name);
    return said.empty() || said == expected;
}

// The folder in front is the center's. A name is cut where the center cuts it.
bool names_slot_of(const About& about, const std::string& segment) {
    constexpr std::size_t longest_name = 63;
    const std::string folder = segment.substr(0, segment.rfind('/') + 1);
    const std::string expected = folder + about.slot + "_" + std::to_string(about.channel) + "_" +
                                 std::to_string(about.stream);
    return segment.empty() || segment == expected.substr(0, longest_name);
}

bool names_channel_of(const About& about, const Json::Value& reply) {
    const Shm_Stream_Transmission_Index key(about.name, about.channel, about.stream);
    const char* const side = about.type == control::type::distributor ? "SRC" : "DST";
    const IPC_SHM_CTRL_INFO names(side, about.name, key);
    return names_slot_of(about, text_at(reply, field::shm_path)) &&
           is_or_is_missing(reply, field::sem_path_src, names.sem_path_src) &&
           is_or_is_missing(reply, field::sem_path_dst, names.sem_path_dst) &&
           is_or_is_missing(reply, field::sem_path_exist, names.sem_path_exist);
}

}  // namespace

bool is_reply_to(const Json::Value& request, const Json::Value& reply) {
    const std::string asked = text_at(request, field::command);
    const std::string reason = text_at(reply, field::reason);
    const About about(request);
    if (text_at(reply, field::command) != asked) {
        return false;
    }
    if (asked == command::register_end) {
        return names_channel_of(about, reply) &&
               !is_other_refusal(reason, "Can't Find Channel ",
                                 {std::to_string(about.channel) + ", Stream " +
                                  std::to_string(about.stream) + " " + about.type});
    }
    if (asked == command::pair_source) {
        return names_channel_of(about, reply) &&
               !is_other_refusal(reason, "Can't Find Shm ",
                                 {"Name " + about.name, "Pair Name " + about.slot});
    }
    if (asked == command::query_shm) {
        return is_or_is_missing(reply, field::name, about.name) &&
               is_or_is_missing(reply, field::type, about.type) &&
               !is_other_refusal(reason, "Can't Find Shm ",
                                 {"Name " + about.name + " " + about.type});
    }
    return true;
}

}  // namespace zav_shm
