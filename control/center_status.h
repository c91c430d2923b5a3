// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace zav_shm {

/// One channel end, as the status names it.
struct Status_End {
    std::string name;
    int channel = 0;
    int stream = 0;
};

/// Where the status of the segments' folder lies, "/dev/shm/shm/center_status.json". The center's
/// host rewrites it once a second; docs/daemon.md describes it. `folder` is written as in the
/// segments' names, "/shm".
std::string center_status_path(const std::string& folder);

/// The name of the producer that the status tells to feed this consumer's channel.
///
/// @param since  a status that was not written after this says what was before, and is none.
/// @return nothing when there is no status, it cannot be read, or nobody feeds the consumer. Total:
///         no content of the file does more harm than that.
std::optional<std::string> producer_feeding(const std::string& folder, const Status_End& consumer,
                                            std::chrono::system_clock::time_point since = {});

}  // namespace zav_shm
