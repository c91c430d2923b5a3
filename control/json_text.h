// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <string>

// The one reading of JSON texts that others have written: requests, replies and the status file.
// It is total: every text reads as something, nothing throws, and what is missing, of the wrong
// type, out of range or nested too deep reads as missing. Nor does it touch an object of the JSON
// library's that is destroyed at the end of the process, when objects of static storage may still
// take leave of the center.

namespace zav_shm {

/// Reads a text into `root`. What was understood before an error stays in it; a text that is nested
/// too deep leaves null.
///
/// @return true when all of the text was understood. Comments and a text behind the first value do
///         not count against it.
bool read_json(const std::string& text, Json::Value& root);

/// The value of a text; null when not all of it was understood.
Json::Value parsed_json(const std::string& text);

/// A member of `object`, which may be anything; null when it is missing.
const Json::Value& member_of(const Json::Value& object, const char* member);

// The same by type: "", 0 and false when it is missing or of another type.
std::string text_at(const Json::Value& object, const char* member);
int number_at(const Json::Value& object, const char* member);
Json::UInt64 count_at(const Json::Value& object, const char* member);
bool flag_at(const Json::Value& object, const char* member);

/// An array; empty when it is missing or none.
Json::Value list_at(const Json::Value& object, const char* member);

}  // namespace zav_shm
