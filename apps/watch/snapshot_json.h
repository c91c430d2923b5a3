// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include "apps/watch/snapshot.h"

namespace zav_shm::watch {

/// The number in the member "schema". Members may be added under the same number; one that goes or
/// changes its meaning gets another.
inline constexpr int json_schema = 1;

/// A snapshot as docs/status.schema.json describes it. Names and texts of others are made printable
/// first, so that they are UTF-8 without control characters.
Json::Value json_of(const Snapshot& snapshot);

/// Words of the same, for whoever shows a state otherwise.
const char* name_of(Consumer::Kind kind);
const char* name_of(Consumer::State state);
const char* name_of(Stream::State state);

}  // namespace zav_shm::watch
