// SPDX-License-Identifier: Apache-2.0
#include "control/json_text.h"

#include <cstring>
#include <exception>
#include <memory>

namespace zav_shm {

// Json::Reader accepts what clients have always been allowed to send (comments, a text behind the
// object); the builder that replaces it accepts other things.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool read_json(const std::string& text, Json::Value& root) {
    try {
        Json::Reader reader;
        return reader.parse(text, root, true);
    } catch (const std::exception&) {
        root = Json::Value();  // nested too deep
        return false;
    }
}
#pragma GCC diagnostic pop

Json::Value parsed_json(const std::string& text) {
    Json::Value root;
    return read_json(text, root) ? root : Json::Value();
}

const Json::Value& member_of(const Json::Value& object, const char* member) {
    static const Json::Value* const nothing = std::make_unique<Json::Value>().release();
    if (!object.isObject()) {
        return *nothing;
    }
    const Json::Value* const found = object.find(member, member + std::strlen(member));
    return found == nullptr ? *nothing : *found;
}

std::string text_at(const Json::Value& object, const char* member) {
    const Json::Value& value = member_of(object, member);
    return value.isString() ? value.asString() : std::string();
}

int number_at(const Json::Value& object, const char* member) {
    const Json::Value& value = member_of(object, member);
    return value.isInt() ? value.asInt() : 0;
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

}  // namespace zav_shm
