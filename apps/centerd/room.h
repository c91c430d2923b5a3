// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "apps/centerd/inventory.h"
#include "apps/centerd/outcome.h"

namespace zav_shm::centerd {

/// What a start takes from /dev/shm and what that has left, in bytes and in files (inodes). Asked
/// before anything is made: a center that runs out of room half-way would serve some channels and
/// not others.
struct Room {
    static constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

    std::uint64_t needed_bytes = 0;
    std::uint64_t available_bytes = 0;
    std::uint64_t needed_files = 0;
    std::uint64_t available_files = 0;

    // What clients take beside that when they all come: histories with their locks and requests,
    // and for each consumer channel its card and its route. What of the histories is there already
    // does not count.
    std::uint64_t ring_bytes = 0;
    std::uint64_t ring_files = 0;

    /// Segments that are there already need only what they lack; those of another length are
    /// replaced. Semaphores are counted in full: they are made anew, while clients may still hold
    /// the former ones.
    static Room for_start_of(const Inventory& inventory);

    /// What the status file takes at most.
    static std::uint64_t status_bytes(const Inventory& inventory);

    /// After a start: what is left for clients.
    static Room of_clients(const Inventory& inventory);

    /// After a start has failed: what is still lacking of segments and semaphores.
    static Room for_the_rest_of(const Inventory& inventory);

    /// Refuses a start that itself has too little.
    Outcome check() const;

    /// What clients will have too little of, though the start does not. No reason to refuse a
    /// start: most configurations have more names than clients that come, and who uses the fixed
    /// interface alone has no ring.
    std::optional<std::string> warning() const;
};

}  // namespace zav_shm::centerd
