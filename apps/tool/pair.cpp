// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <vector>

#include "apps/text/printable.h"
#include "apps/tool/center_request.h"
#include "apps/tool/commands.h"
#include "apps/tool/configured_name.h"
#include "apps/tool/json_text.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

struct End {
    int channel = 0;
    int stream = 0;
};

bool frees(const Pair_Options& options) { return options.producer == control::no_producer; }

std::vector<End> ends_of(const Configured_Name& name) {
    constexpr std::uint64_t count_max = 4096;  // of channels, and of streams
    const auto channels = static_cast<int>(std::min(name.channels(), count_max));
    const auto streams = static_cast<int>(std::min(name.streams(), count_max));
    std::vector<End> ends;
    for (int channel = 0; channel < channels; ++channel) {
        for (int stream = 0; stream < streams; ++stream) {
            ends.push_back({channel, stream});
        }
    }
    return ends;
}

// The ends of the consumer that the producer has, too. Those that it has not are told and stay as
// they are.
std::variant<std::vector<End>, Problem> common_ends(const Pair_Options& options,
                                                    const Configured_Name& consumer,
                                                    const Configured_Name& producer) {
    std::vector<End> ends = ends_of(consumer);
    const std::size_t all = ends.size();
    if (all == 0) {
        return *consumer.missing(0, 0);
    }
    if (!frees(options)) {
        std::erase_if(ends, [&](const End& end) { return !producer.has(end.channel, end.stream); });
    }
    if (ends.empty()) {
        return *producer.missing(0, 0);
    }
    if (ends.size() < all) {
        complain(std::to_string(all - ends.size()) + " of " + std::to_string(all) +
                 " channel ends of " + options.name + " stay as they are: " + options.producer +
                 " has " + producer.extent());
    }
    return ends;
}

// What is to be paired, once it is known to exist on both sides.
std::variant<std::vector<End>, Problem> ends_to_pair(const Pair_Options& options) {
    const auto consumer =
        Configured_Name::ask(control::type::receiver, options.name, {options.wait});
    if (const auto* problem = std::get_if<Problem>(&consumer)) {
        return *problem;
    }
    const auto producer =
        Configured_Name::ask(control::type::distributor, options.producer, {options.wait});
    if (const auto* problem = std::get_if<Problem>(&producer)) {
        return *problem;
    }
    const auto& its = std::get<Configured_Name>(consumer);
    const auto& theirs = std::get<Configured_Name>(producer);
    if (options.all) {
        return common_ends(options, its, theirs);
    }
    if (auto problem = its.missing(options.channel, options.stream)) {
        return *problem;
    }
    if (auto problem = theirs.missing(options.channel, options.stream);
        problem && !frees(options)) {
        return *problem;
    }
    return std::vector<End>{{options.channel, options.stream}};
}

std::variant<Json::Value, Problem> pair_one(const Pair_Options& options, const End& end) {
    Json::Value request;
    request[control::field::command] = control::command::pair_source;
    request[control::field::type] = control::type::receiver;
    request[control::field::name] = options.name;
    request[control::field::pair_name] = options.producer;
    request[control::field::channel] = end.channel;
    request[control::field::stream] = end.stream;
    return ask_center(request, {options.wait});
}

std::string text_of(const Pair_Options& options, const End& end) {
    const std::string producer =
        frees(options) ? "nobody" : channel_text(options.producer, end.channel, end.stream);
    return printable(channel_text(options.name, end.channel, end.stream) + " is fed by " +
                     producer);
}

}  // namespace

Exit_Status run(const Pair_Options& options, const Standard_Output& output) {
    const auto ends = ends_to_pair(options);
    if (const auto* problem = std::get_if<Problem>(&ends)) {
        return report(*problem);
    }
    for (const End& end : std::get<std::vector<End>>(ends)) {
        auto result = pair_one(options, end);
        if (const auto* problem = std::get_if<Problem>(&result)) {
            return report(*problem);
        }
        auto& reply = std::get<Json::Value>(result);
        reply[control::field::name] = options.name;
        reply[control::field::pair_name] = options.producer;
        reply[control::field::channel] = end.channel;
        reply[control::field::stream] = end.stream;
        const std::string line = options.json ? json_line(reply) : text_of(options, end);
        const Exit_Status written = write_to(output, line + "\n");
        if (written != Exit_Status::ok) {
            return written;
        }
    }
    return Exit_Status::ok;
}

}  // namespace zav_shm::tool
