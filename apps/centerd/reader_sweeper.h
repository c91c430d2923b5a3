// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <utility>

namespace zav_shm::centerd {

/// Removes the cards that readers of rings have left: those that are not locked, so that it does
/// not matter in which PID namespace a reader lives.
///
/// A card has its lock before it has its name; the file that it is before that has none for a
/// moment. So whatever is not locked goes when it is seen so twice.
class Reader_Sweeper {
public:
    explicit Reader_Sweeper(std::string folder) : folder_(std::move(folder)) {}

    /// To be called from time to time.
    ///
    /// @return how many were removed.
    std::size_t step();

private:
    const std::string folder_;
    std::set<std::string> seen_dead_;  // at the latest look; no name comes twice
};

}  // namespace zav_shm::centerd
