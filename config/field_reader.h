// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace zav_shm {

/// The fixed text fields of the configuration: 31 characters (bytes) and a terminator.
inline constexpr std::size_t text_field_bytes = 32;
inline constexpr std::size_t text_length_max = text_field_bytes - 1;
using Text_Field = char[text_field_bytes];

/// Fills the field with the first 31 characters of `text` and zero bytes behind them.
void store_text(Text_Field& field, const std::string& text);

/// The field's text, also when somebody filled it without a terminator.
std::string text_of(const Text_Field& field);

/// `text` in double quotes and in ASCII, control characters escaped and shortened, for messages.
std::string quoted(const std::string& text);

/// "Distributor[2]"
std::string element_name(const char* list, std::size_t position);

/// Reads fields of a parsed document without ever throwing, whatever the document holds.
///
/// A value is converted wherever jsoncpp can convert it: 2.7 reads as 2, true as 1, 5 as "5".
/// Whatever it cannot convert (jsoncpp would throw) is a failure of a required field, and reads
/// as missing in an optional one. A value of null is the same as a missing one.
///
/// Errors   a required field that cannot be had returns false and sets `error` to where it was
///          expected, what was found and what the limit is.
/// Remarks  what was read otherwise than it is written is appended to `remarks`.
class Field_Reader {
public:
    Field_Reader(std::string& error, std::vector<std::string>& remarks)
        : error_(error), remarks_(remarks) {}

    /// The array root[key] with at least one element; null with `error` set otherwise.
    const Json::Value* section(const Json::Value& root, const char* key);

    /// The object root[key], or null when there is none.
    const Json::Value& optional_object(const Json::Value& root, const char* key);

    /// The member of an object; null with `error` set when the object is none or has no such
    /// member. `where` names the object.
    const Json::Value* required(const Json::Value& object, const std::string& where,
                                const char* key);

    bool integer(const Json::Value& object, const std::string& where, const char* key, int& out);
    bool integer(const Json::Value& value, const std::string& where, int& out);

    /// 0 when the member is missing, and, with a remark, when it is no number that an int can hold.
    int optional_integer(const Json::Value& object, const std::string& where, const char* key);

    /// A text of 31 characters at most: a longer one is refused.
    bool name(const Json::Value& object, const std::string& where, const char* key,
              Text_Field& out);

    /// Empty when the member is missing, and, with a remark, when it is no text or an empty one.
    std::string optional_text(const Json::Value& object, const std::string& where, const char* key);

    /// A text of which the first 31 characters are taken; `fallback` when it is missing.
    void path(const Json::Value& object, const std::string& where, const char* key,
              const char* fallback, Text_Field& out);

    bool flag(const Json::Value& object, const std::string& where, const char* key);

    /// Sets `error`; false, to be returned.
    bool fail(const std::string& error);

private:
    std::string as_text(const Json::Value& value, const std::string& where);

    std::string& error_;
    std::vector<std::string>& remarks_;
};

}  // namespace zav_shm
