// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <vector>

#include "apps/tool/center_request.h"
#include "apps/tool/commands.h"
#include "apps/tool/json_text.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

struct End {
    int channel = 0;
    int stream = 0;
};

// All that the center has for this consumer, or the one of the options.
std::variant<std::vector<End>, Problem> ends_of(const Pair_Options& options) {
    if (!options.all) {
        return std::vector<End>{{options.channel, options.stream}};
    }
    const auto known = query_name(control::type::receiver, options.name, options.wait);
    if (const auto* problem = std::get_if<Problem>(&known)) {
        return *problem;
    }
    const auto& reply = std::get<Json::Value>(known);
    const auto channels = std::min<Json::UInt64>(count_at(reply, control::field::channel), 4096);
    const auto streams = std::min<Json::UInt64>(count_at(reply, control::field::stream), 4096);
    std::vector<End> ends;
    for (Json::UInt64 channel = 0; channel < channels; ++channel) {
        for (Json::UInt64 stream = 0; stream < streams; ++stream) {
            ends.push_back({static_cast<int>(channel), static_cast<int>(stream)});
        }
    }
    if (ends.empty()) {
        return Problem{Exit_Status::refused, options.name + " has " + std::to_string(channels) +
                                                 " channels with " + std::to_string(streams) +
                                                 " streams in the center's configuration: there "
                                                 "is nothing to pair"};
    }
    return ends;
}

std::variant<Json::Value, Problem> pair_one(const Pair_Options& options, const End& end) {
    Json::Value request;
    request[control::field::command] = control::command::pair_source;
    request[control::field::type] = control::type::receiver;
    request[control::field::name] = options.name;
    request[control::field::pair_name] = options.producer;
    request[control::field::channel] = end.channel;
    request[control::field::stream] = end.stream;
    return ask_center(request, options.wait);
}

}  // namespace

Exit_Status run(const Pair_Options& options, const Standard_Output& output) {
    const auto ends = ends_of(options);
    if (const auto* problem = std::get_if<Problem>(&ends)) {
        return report(*problem);
    }
    for (const End& end : std::get<std::vector<End>>(ends)) {
        auto result = pair_one(options, end);
        if (const auto* problem = std::get_if<Problem>(&result)) {
            return report(*problem);
        }
        auto& reply = std::get<Json::Value>(result);
        std::string consumer = channel_text(options.name, end.channel, end.stream);
        const std::string producer = channel_text(options.producer, end.channel, end.stream);
        reply[control::field::name] = options.name;
        reply[control::field::pair_name] = options.producer;
        reply[control::field::channel] = end.channel;
        reply[control::field::stream] = end.stream;
        const std::string line =
            options.json ? json_line(reply) : consumer.append(" is fed by ").append(producer);
        const Exit_Status written = write_to(output, line + "\n");
        if (written != Exit_Status::ok) {
            return written;
        }
    }
    return Exit_Status::ok;
}

}  // namespace zav_shm::tool
