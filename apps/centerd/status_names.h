// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include "config/zav_shm_config.h"

namespace zav_shm::centerd {

/// The member "names" of the status: who may be a client, on which channels, in which streams.
/// docs/daemon.md lists its fields.
Json::Value status_names(const ZAV_SHM_CONFIG& config);

}  // namespace zav_shm::centerd
