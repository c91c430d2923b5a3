// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/json_text.h"

#include <exception>
#include <memory>

namespace zav_shm::tool {

namespace {

const Json::Value& member_of(const Json::Value& object, const char* member) {
    static const Json::Value nothing;
    return object.isObject() ? object[member] : nothing;
}

}  // namespace

std::string json_line(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 3;
    builder["precisionType"] = "decimal";
    return Json::writeString(builder, value);
}

Json::Value parsed_json(const std::string& text) {
    try {
        Json::Value value;
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
            return value;
        }
    } catch (const std::exception&) {
        return {};  // nested too deep
    }
    return {};
}

std::string text_at(const Json::Value& object, const char* member) {
    const Json::Value& value = member_of(object, member);
    return value.isString() ? value.asString() : std::string();
}

Json::UInt64 count_at(const Json::Value& object, const char* member) {
    const Json::Value& value = member_of(object, member);
    return value.isUInt64() ? value.asUInt64() : 0;
}

bool flag_at(const Json::Value& object, const char* member) {
    const Json::Value& value = member_of(object, member);
    return value.isBool() && value.asBool();
}

Json::Value list_at(const Json::Value& object, const char* member) {
    const Json::Value& value = member_of(object, member);
    return value.isArray() ? value : Json::Value(Json::arrayValue);
}

}  // namespace zav_shm::tool
