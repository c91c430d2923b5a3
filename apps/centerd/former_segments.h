// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "apps/centerd/inventory.h"

namespace zav_shm::centerd {

/// Segments that are there from an earlier center, as seen before the next one is built.
///
/// The center uses a segment of its name again and gives it the length that it needs. A process
/// that still has a longer one mapped would be killed by SIGBUS as soon as it touched what was cut
/// off. So the names of segments with another length go before the center is built: who has them
/// mapped keeps them as they are, and whoever opens the names finds the new ones.
struct Former_Segments {
    std::uint64_t of_same_length = 0;
    std::uint64_t of_another_length = 0;
    std::uint64_t reused_bytes = 0;  // memory of those with the same length
    std::uint64_t freed_bytes = 0;   // and of the others, which is free once nobody maps them

    explicit Former_Segments(const Inventory& inventory);

    /// Removes the names of those with another length.
    static void remove_of_another_length(const Inventory& inventory);
};

}  // namespace zav_shm::centerd
