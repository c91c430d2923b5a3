// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zav_shm::centerd {

/// Removes from the rings' folder what nobody uses: histories without a writer and what lies beside
/// them, cards of readers that are gone, routes. What a process that lives has locked stays, and it
/// goes on.
///
/// @param folder  of which this process is the owner, or root
void remove_ring_leftovers(const std::string& folder);

/// Removes a file unless it, or the ring that it lies beside, is in use.
///
/// @return false when it stays.
bool remove_unless_used(const std::string& path);

}  // namespace zav_shm::centerd
