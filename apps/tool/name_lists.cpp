// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/name_lists.h"

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

Json::Value producer_of(const Json::Value& entry, const Json::Value& channels) {
    Json::Value producer = layout_of(entry);
    producer["feeds"] = Json::Value(Json::arrayValue);
    for (const Json::Value& channel : channels) {
        if (text_at(channel, "name") != text_at(entry, "name")) {
            continue;
        }
        for (const Json::Value& consumer : list_at(channel, "consumers")) {
            Json::Value fed = end_of(consumer);
            fed["name"] = text_at(consumer, "name");
            producer["feeds"].append(fed);
        }
    }
    return producer;
}

Json::Value consumer_of(const Json::Value& entry, const Json::Value& channels) {
    Json::Value consumer = layout_of(entry);
    consumer["fed"] = Json::Value(Json::arrayValue);
    for (const Json::Value& channel : channels) {
        for (const Json::Value& end : list_at(channel, "consumers")) {
            if (text_at(end, "name") == text_at(entry, "name")) {
                Json::Value fed = end_of(end);
                fed["producer"] = text_at(channel, "name");
                consumer["fed"].append(fed);
            }
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

std::string number_at(const Json::Value& object, const char* member) {
    return std::to_string(count_at(object, member));
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
    const Json::Value channels = list_at(status, "channels");
    Json::Value names;
    names["producers"] = names["consumers"] = Json::Value(Json::arrayValue);
    for (const Json::Value& entry : list_at(status["names"], "distributors")) {
        names["producers"].append(producer_of(entry, channels));
    }
    for (const Json::Value& entry : list_at(status["names"], "receivers")) {
        names["consumers"].append(consumer_of(entry, channels));
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
