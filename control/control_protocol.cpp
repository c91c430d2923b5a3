// SPDX-License-Identifier: Apache-2.0
#include "control/control_protocol.h"

#include "control/json_text.h"

namespace zav_shm::control {

namespace {

std::string written(const Json::Value& object, const char* indentation) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    return Json::writeString(builder, object);
}

int as_number(const Json::Value& value) {
    return value.isConvertibleTo(Json::intValue) ? value.asInt() : 0;
}

}  // namespace

// What was read before an error is used, so the result says nothing.
Fields::Fields(const std::string& text) { static_cast<void>(read_json(text, root_)); }

std::string Fields::text(const char* field) const {
    const Json::Value& value = at(field);
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

int Fields::number(const char* field) const { return as_number(at(field)); }

bool Fields::flag(const char* field) const {
    const Json::Value& value = at(field);
    return value.isConvertibleTo(Json::booleanValue) && value.asBool();
}

std::vector<int> Fields::numbers(const char* field) const {
    std::vector<int> found;
    const Json::Value& array = at(field);
    if (array.isArray()) {
        for (const Json::Value& element : array) {
            found.push_back(as_number(element));
        }
    }
    return found;
}

bool Fields::is_text(const char* field) const { return at(field).isString(); }

const Json::Value& Fields::at(const char* field) const { return member_of(root_, field); }

Request::Request(const std::string& text) {
    const Fields fields(text);
    type = fields.text(field::type);
    name = fields.text(field::name);
    pair_name = fields.text(field::pair_name);
    channel = fields.number(field::channel);
    stream = fields.number(field::stream);
    pid = fields.number(field::pid);
}

std::string written_with_tabs(const Json::Value& object) { return written(object, "\t"); }

std::string written_on_one_line(const Json::Value& object) { return written(object, ""); }

}  // namespace zav_shm::control
