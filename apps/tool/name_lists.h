// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

namespace zav_shm::tool {

/// What the center's status says of names: the producers and consumers of the configuration, and
/// which producer feeds each channel end of a consumer that is registered.
///
///   { "producers": [{"name": ..., "channels": N, "streams": [{"stream": 0, "index": ...,
///                    "page_size": ...}], "feeds": [{"name": ..., "channel": ..., "stream":
///                    ...}]}],
///     "consumers": [{"name": ..., "channels": N, "streams": [...],
///                    "fed": [{"channel": ..., "stream": ..., "producer": ...}]}] }
///
/// @param status  the content of the file; anything, what is missing is left out.
/// @return nothing when the status has no list of names.
std::optional<Json::Value> names_of(const Json::Value& status);

/// Two tables for people.
std::string text_of_names(const Json::Value& names);

}  // namespace zav_shm::tool
