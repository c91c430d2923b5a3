// SPDX-License-Identifier: Apache-2.0
#include "control/center_status.h"

#include <json/json.h>

#include <algorithm>
#include <exception>
#include <fstream>

namespace zav_shm {

namespace {

Json::Value read_status(const std::string& folder) {
    std::ifstream file(center_status_path(folder));
    Json::Value root;
    try {
        const Json::CharReaderBuilder builder;
        if (!file || !Json::parseFromStream(builder, file, &root, nullptr)) {
            return {};
        }
    } catch (const std::exception&) {
        return {};  // nested too deep
    }
    return root;
}

bool is(const Json::Value& entry, const Status_End& end) {
    return entry.isObject() && entry["name"] == end.name && entry["channel"] == end.channel &&
           entry["stream"] == end.stream;
}

bool feeds(const Json::Value& producer, const Status_End& consumer) {
    if (!producer.isObject() || !producer["name"].isString() || !producer["consumers"].isArray()) {
        return false;
    }
    const Json::Value& fed = producer["consumers"];
    return std::any_of(fed.begin(), fed.end(),
                       [&consumer](const Json::Value& entry) { return is(entry, consumer); });
}

}  // namespace

std::string center_status_path(const std::string& folder) {
    const std::size_t begin = folder.find_first_not_of('/');
    return "/dev/shm/" + (begin == std::string::npos ? "" : folder.substr(begin)) +
           "/center_status.json";
}

std::optional<std::string> producer_feeding(const std::string& folder, const Status_End& consumer) {
    const Json::Value status = read_status(folder);
    if (!status.isObject() || !status["channels"].isArray()) {
        return {};
    }
    for (const Json::Value& producer : status["channels"]) {
        if (feeds(producer, consumer)) {
            return producer["name"].asString();
        }
    }
    return {};
}

}  // namespace zav_shm
