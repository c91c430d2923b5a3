// SPDX-License-Identifier: Apache-2.0
#include "config/field_reader.h"

#include <climits>
#include <cstring>

namespace zav_shm {

namespace {

constexpr std::size_t shown_length_max = 64;

std::string json_text(const Json::Value& value) {
    Json::StreamWriterBuilder format;
    format["indentation"] = "";
    format["commentStyle"] = "None";
    format["precision"] = 15;  // digits; with more, 2.7 shows as 2.7000000000000002
    return Json::writeString(format, value);
}

// A value as a message shows it: scalars whole, of the others only what they are.
std::string shown(const Json::Value& value) {
    if (value.isArray()) {
        return "an array";
    }
    if (value.isObject()) {
        return "an object";
    }
    return value.isString() ? quoted(value.asString()) : json_text(value);
}

// Constant access: the other kind adds the members that it does not find.
const Json::Value& member(const Json::Value& object, const char* key) {
    return object.isObject() ? object[key] : Json::Value::nullSingleton();
}

}  // namespace

void store_text(Text_Field& field, const std::string& text) {
    std::memset(field, 0, text_field_bytes);
    text.copy(field, text_length_max);
}

std::string text_of(const Text_Field& field) { return {field, strnlen(field, text_length_max)}; }

std::string quoted(const std::string& text) {
    const bool fits = text.size() <= shown_length_max;
    return json_text(fits ? text : text.substr(0, shown_length_max - 3) + "...");
}

std::string element_name(const char* list, std::size_t position) {
    return std::string(list) + "[" + std::to_string(position) + "]";
}

const Json::Value* Field_Reader::section(const Json::Value& root, const char* key) {
    if (key == nullptr) {
        fail("no section was given");
        return nullptr;
    }
    if (!root.isNull() && !root.isObject()) {
        fail("the document is " + shown(root) + ", not an object");
        return nullptr;
    }
    const Json::Value& list = member(root, key);
    if (list.isNull()) {
        fail(std::string(key) + " is missing");
    } else if (!list.isArray()) {
        fail(std::string(key) + ": " + shown(list) + " is not an array");
    } else if (list.empty()) {
        fail(std::string(key) + " is empty, at least one element is needed");
    } else {
        return &list;
    }
    return nullptr;
}

const Json::Value& Field_Reader::optional_object(const Json::Value& root, const char* key) {
    const Json::Value& object = member(root, key);
    if (object.isNull() || object.isObject()) {
        return object;
    }
    remarks_.push_back(std::string(key) + ": " + shown(object) +
                       " is not an object, the defaults are used");
    return Json::Value::nullSingleton();
}

const Json::Value* Field_Reader::required(const Json::Value& object, const std::string& where,
                                          const char* key) {
    if (!object.isObject()) {
        fail(where + ": " + shown(object) + " is not an object");
        return nullptr;
    }
    const Json::Value& value = member(object, key);
    if (value.isNull()) {
        fail(where + "." + key + " is missing");
        return nullptr;
    }
    return &value;
}

bool Field_Reader::integer(const Json::Value& object, const std::string& where, const char* key,
                           int& out) {
    const Json::Value* value = required(object, where, key);
    return value != nullptr && integer(*value, where + "." + key, out);
}

bool Field_Reader::integer(const Json::Value& value, const std::string& where, int& out) {
    if (!value.isConvertibleTo(Json::intValue)) {
        return fail(where + ": " + shown(value) + " is not an integer from " +
                    std::to_string(INT_MIN) + " to " + std::to_string(INT_MAX));
    }
    out = value.asInt();
    if (!value.isInt()) {
        remarks_.push_back(where + ": " + shown(value) + " is read as " + std::to_string(out));
    }
    return true;
}

int Field_Reader::optional_integer(const Json::Value& object, const std::string& where,
                                   const char* key) {
    const Json::Value& value = member(object, key);
    const std::string place = where + "." + key;
    int read = 0;
    if (value.isNull()) {
        return 0;
    }
    if (!value.isConvertibleTo(Json::intValue)) {
        remarks_.push_back(place + ": " + shown(value) + " is not an integer from 0 to " +
                           std::to_string(INT_MAX) + "; 0 is used");
        return 0;
    }
    integer(value, place, read);
    return read;
}

bool Field_Reader::name(const Json::Value& object, const std::string& where, const char* key,
                        Text_Field& out) {
    const Json::Value* value = required(object, where, key);
    if (value == nullptr) {
        return false;
    }
    const std::string place = where + "." + key;
    if (!value->isConvertibleTo(Json::stringValue)) {
        return fail(place + ": " + shown(*value) + " is not a string");
    }
    const std::string text = as_text(*value, place);
    if (text.size() > text_length_max) {
        return fail(place + ": " + quoted(text) + " has " + std::to_string(text.size()) +
                    " characters, " + std::to_string(text_length_max) + " fit");
    }
    store_text(out, text);
    return true;
}

std::string Field_Reader::optional_text(const Json::Value& object, const std::string& where,
                                        const char* key) {
    const Json::Value& value = member(object, key);
    const std::string place = where + "." + key;
    if (value.isNull()) {
        return {};
    }
    if (!value.isString() || value.asString().empty()) {
        remarks_.push_back(place + ": " + shown(value) + " is not a string, or empty");
        return {};
    }
    return as_text(value, place);
}

void Field_Reader::path(const Json::Value& object, const std::string& where, const char* key,
                        const char* fallback, Text_Field& out) {
    const std::string place = where + "." + key;
    const Json::Value& value = member(object, key);
    store_text(out, fallback);
    if (value.isNull()) {
        return;
    }
    if (!value.isConvertibleTo(Json::stringValue)) {
        remarks_.push_back(place + ": " + shown(value) + " is not a string, " + quoted(fallback) +
                           " is used");
        return;
    }
    const std::string text = as_text(value, place);
    store_text(out, text);
    if (text.size() > text_length_max) {
        remarks_.push_back(place + ": " + quoted(text) + " has " + std::to_string(text.size()) +
                           " characters, " + std::to_string(text_length_max) + " fit; " +
                           quoted(out) + " is used");
    }
}

bool Field_Reader::flag(const Json::Value& object, const std::string& where, const char* key) {
    const Json::Value& value = member(object, key);
    const bool set = value.isConvertibleTo(Json::booleanValue) && value.asBool();
    if (!value.isNull() && !value.isBool()) {
        remarks_.push_back(where + "." + key + ": " + shown(value) + " is not a boolean, " +
                           (set ? "true" : "false") + " is used");
    }
    return set;
}

bool Field_Reader::fail(const std::string& error) {
    error_ = error;
    return false;
}

// A text ends at its first zero character, as fields of C strings do.
std::string Field_Reader::as_text(const Json::Value& value, const std::string& where) {
    const std::string whole = value.asString();
    std::string text = whole.substr(0, whole.find('\0'));
    if (text.size() != whole.size()) {
        remarks_.push_back(where + ": " + quoted(whole) + " holds a zero character, " +
                           quoted(text) + " is used");
    } else if (!value.isString()) {
        remarks_.push_back(where + ": " + shown(value) + " is read as " + quoted(text));
    }
    return text;
}

}  // namespace zav_shm
