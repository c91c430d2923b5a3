// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/watch/snapshot.h"

namespace zav_shm::watch {

struct Found_Ring {
    Stream_Id id;
    std::string path;
};

/// Every file with the name of a ring, in the folder of all and in those of producers with groups.
///
/// @param rings_folder  "/dev/shm/shm/rings"
/// @param count_max     finds no more than these
/// @param omitted       is told how many there are beyond
/// @return by id.
std::vector<Found_Ring> find_rings(const std::string& rings_folder, std::size_t count_max,
                                   std::uint64_t& omitted);

/// What the name of a ring's file says: "CAM_LOOP_0_1".
std::optional<Stream_Id> stream_named(std::string_view file);

}  // namespace zav_shm::watch
