// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <string>

namespace zav_shm::tool {

/// One line without a line end; fractions with three decimals at most.
std::string json_line(const Json::Value& value);

/// Reads a text of any origin.
///
/// @return null when it is no JSON.
Json::Value parsed_json(const std::string& text);

// A member of `object`, which may be anything; "", 0 and false when it is missing or of another
// type.
std::string text_at(const Json::Value& object, const char* member);
Json::UInt64 count_at(const Json::Value& object, const char* member);
bool flag_at(const Json::Value& object, const char* member);

/// An array; empty when it is missing or none.
Json::Value list_at(const Json::Value& object, const char* member);

}  // namespace zav_shm::tool
