// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/name_lists.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "apps/text/printable.h"
#include "apps/tool/json_text.h"
#include "apps/tool/problem.h"
#include "apps/tool/text_table.h"

namespace zav_shm::tool {

namespace {

Json::Value end_of(const Json::Value& entry) {
    Json::Value end;
    end["channel"] = Json::UInt64{count_at(entry, "channel")};
    end["stream"] = Json::UInt64{count_at(entry, "stream")};
    return end;
}

// A name with its layout; unknown members are not passed on.
Json::Value layout_of(const Json::Value& entry) {
    Json::Value layout;
    layout["name"] = text_at(entry, "name");
    layout["channels"] = Json::UInt64{count_at(entry, "channels")};
    layout["streams"] = Json::Value(Json::arrayValue);
    for (const Json::Value& stream : list_at(entry, "streams")) {
        Json::Value known;
        for (const char* member : {"stream", "index", "page_size"}) {
            known[member] = Json::UInt64{count_at(stream, member)};
        }
        layout["streams"].append(known);
    }
    return layout;
}

// A consumer that is registered, and the producer that feeds it.
struct Pairing {
    std::string producer;
    std::string consumer;
    Json::Value end;
};

// Of those that are fed by a relay, and of those that read their producer's history themselves.
// Several processes may do that as one consumer.
std::vector<Pairing> pairings_of(const Json::Value& status) {
    std::vector<Pairing> pairings;
    for (const Json::Value& channel : list_at(status, "channels")) {
        for (const Json::Value& consumer : list_at(channel, "consumers")) {
            pairings.push_back(
                {text_at(channel, "name"), text_at(consumer, "name"), end_of(consumer)});
        }
    }
    for (const Json::Value& reader : list_at(status, "ring_consumers")) {
        Pairing pairing{text_at(reader, "producer"), text_at(reader, "consumer"), end_of(reader)};
        const bool is_new =
            std::none_of(pairings.begin(), pairings.end(), [&pairing](const Pairing& known) {
                return known.producer == pairing.producer && known.consumer == pairing.consumer &&
                       known.end == pairing.end;
            });
        if (is_new && !pairing.consumer.empty() && !pairing.producer.empty()) {
            pairings.push_back(std::move(pairing));
        }
    }
    return pairings;
}

Json::Value producer_of(const Json::Value& entry, const std::vector<Pairing>& pairings) {
    Json::Value producer = layout_of(entry);
    producer["feeds"] = Json::Value(Json::arrayValue);
    for (const Pairing& pairing : pairings) {
        if (pairing.producer == text_at(entry, "name")) {
            Json::Value fed = pairing.end;
            fed["name"] = pairing.consumer;
            producer["feeds"].append(fed);
        }
    }
    return producer;
}

Json::Value consumer_of(const Json::Value& entry, const std::vector<Pairing>& pairings) {
    Json::Value consumer = layout_of(entry);
    consumer["fed"] = Json::Value(Json::arrayValue);
    for (const Pairing& pairing : pairings) {
        if (pairing.consumer == text_at(entry, "name")) {
            Json::Value fed = pairing.end;
            fed["producer"] = pairing.producer;
            consumer["fed"].append(fed);
        }
    }
    return consumer;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : ", ") + part;
    }
    return text.empty() ? "-" : text;
}

Row row_of(const Json::Value& name, const std::vector<std::string>& registered) {
    std::vector<std::string> sizes;
    for (const Json::Value& stream : list_at(name, "streams")) {
        sizes.push_back(number_at(stream, "page_size"));
    }
    return {printable(text_at(name, "name")), number_at(name, "channels"),
            std::to_string(sizes.size()), joined(sizes), joined(registered)};
}

std::string end_text(const Json::Value& end) {
    return number_at(end, "channel") + "/" + number_at(end, "stream");
}

}  // namespace

std::optional<Json::Value> names_of(const Json::Value& status) {
    if (!status.isObject() || !status["names"].isObject()) {
        return {};
    }
    const std::vector<Pairing> pairings = pairings_of(status);
    Json::Value names;
    names["producers"] = names["consumers"] = Json::Value(Json::arrayValue);
    for (const Json::Value& entry : list_at(status["names"], "distributors")) {
        names["producers"].append(producer_of(entry, pairings));
    }
    for (const Json::Value& entry : list_at(status["names"], "receivers")) {
        names["consumers"].append(consumer_of(entry, pairings));
    }
    return names;
}

std::string text_of_names(const Json::Value& names) {
    std::vector<Row> producers{{"producer", "channels", "streams", "page sizes", "feeds"}};
    for (const Json::Value& producer : list_at(names, "producers")) {
        std::vector<std::string> fed;
        for (const Json::Value& consumer : list_at(producer, "feeds")) {
            fed.push_back(printable(text_at(consumer, "name")) + "/" + end_text(consumer));
        }
        producers.push_back(row_of(producer, fed));
    }
    std::vector<Row> consumers{{"consumer", "channels", "streams", "page sizes", "fed by"}};
    for (const Json::Value& consumer : list_at(names, "consumers")) {
        std::vector<std::string> by;
        for (const Json::Value& end : list_at(consumer, "fed")) {
            by.push_back(printable(text_at(end, "producer")) + "/" + end_text(end));
        }
        consumers.push_back(row_of(consumer, by));
    }
    return aligned(producers, {0, 3, 4}) + "\n" + aligned(consumers, {0, 3, 4});
}

}  // namespace zav_shm::tool
