// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "center/ring_consumers.h"

namespace zav_shm::centerd {

/// Who reads rings, as the status tells it: each card of a reader that lives, and the consumers in
/// the center's books that have none, since there was no room for it.
///
/// What stands in a card is its reader's word.
Json::Value ring_consumer_status(const std::string& rings_folder,
                                 const std::vector<Ring_Consumer_Snapshot>& registered);

}  // namespace zav_shm::centerd
