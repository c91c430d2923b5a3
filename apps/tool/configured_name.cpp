// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/configured_name.h"

#include "apps/tool/json_text.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

// "2 channels (0 to 1)"
std::string counted(std::uint64_t count, const char* what) {
    const std::string number = std::to_string(count);
    switch (count) {
        case 0:
            return std::string("no ") + what;
        case 1:
            return "1 " + std::string(what) + " (0)";
        default:
            return number + " " + what + "s (0 to " + std::to_string(count - 1) + ")";
    }
}

bool is_below(int number, std::uint64_t count) {
    return number >= 0 && static_cast<std::uint64_t>(number) < count;
}

}  // namespace

std::variant<Configured_Name, Problem> Configured_Name::ask(const char* type,
                                                            const std::string& name,
                                                            const Patience& patience) {
    const auto known = query_name(type, name, patience);
    if (const auto* problem = std::get_if<Problem>(&known)) {
        return *problem;
    }
    const auto& reply = std::get<Json::Value>(known);
    return Configured_Name(name, count_at(reply, control::field::channel),
                           count_at(reply, control::field::stream));
}

bool Configured_Name::has(int channel, int stream) const {
    return is_below(channel, channels_) && is_below(stream, streams_);
}

std::string Configured_Name::extent() const {
    return counted(channels_, "channel") + " and " + counted(streams_, "stream");
}

std::optional<Problem> Configured_Name::missing(int channel, int stream) const {
    if (has(channel, stream)) {
        return {};
    }
    std::string text = "there is no " + channel_text(name_, channel, stream) +
                       ": in the center's configuration " + name_ + " has " + extent();
    if (streams_ == 0) {
        text +=
            "; the built-in defaults list none for any name, so start zav-shm-centerd with "
            "--config";
    }
    return Problem{Exit_Status::refused, std::move(text)};
}

std::optional<Problem> check_channel_end(const char* type, const std::string& name, int channel,
                                         int stream, const Patience& patience) {
    const auto known = Configured_Name::ask(type, name, patience);
    if (const auto* problem = std::get_if<Problem>(&known)) {
        return *problem;
    }
    return std::get<Configured_Name>(known).missing(channel, stream);
}

}  // namespace zav_shm::tool
