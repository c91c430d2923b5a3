// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace zav_shm {

/// What a document has that is ignored, and that its author may have meant otherwise: a key given
/// twice, a text behind the object, and keys that nearly are known ones.
///
/// @param text  what was parsed
/// @param root  what it was parsed to
std::vector<std::string> document_warnings(const std::string& text, const Json::Value& root);

/// "line 3, column 7", both counted from 1, columns in bytes.
std::string position_name(long line, long column);

}  // namespace zav_shm
