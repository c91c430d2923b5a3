// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "apps/centerd/control_queues.h"
#include "apps/centerd/inventory.h"
#include "apps/centerd/outcome.h"

namespace zav_shm::centerd {

/// As root, before a center of `user` starts: gives that user the queues, folders, segments,
/// semaphores and locks that are there already. Clients that came first have made some of them, or
/// a center that was another user's; without the owner's right the center could use none of them.
/// Histories stay their publishers'. Makes nothing and follows no link.
///
/// @return a failure when there is no such user, a center runs, or this is not root.
Outcome hand_over(const std::string& user, const Inventory& inventory,
                  const Control_Queues& queues);

}  // namespace zav_shm::centerd
