// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "frame/frame_counters.h"

// Accounts of several publishers or subscribers as one: of what is counted, not of the moments.

namespace zav_shm::tool {

void add(Publisher_Counters& sum, const Publisher_Counters& more);
void add(Subscriber_Counters& sum, const Subscriber_Counters& more);

}  // namespace zav_shm::tool
