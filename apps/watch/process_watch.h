// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "apps/watch/snapshot.h"

namespace zav_shm::watch {

/// What /proc says of the processes that rings and cards name.
///
/// A process id is a word of the file's writer: it may be of another PID namespace, belong to
/// another process by now, or be a lie. A process counts as the writer when it runs as the file's
/// owner, and was there when the file was begun.
///
/// Threads  one at a time.
class Process_Watch {
public:
    /// @param uid       the file's owner
    /// @param began_ns  CLOCK_MONOTONIC when the writer began
    Process look(std::uint32_t pid, uid_t uid, std::int64_t began_ns);

    /// Forgets those that were not looked at since the last call.
    void forget_others();

private:
    struct Known {
        std::uint64_t start_ticks = 0;
        std::optional<uid_t> uid;
        bool was_seen = false;
    };

    std::map<std::uint32_t, Known> known_;
};

}  // namespace zav_shm::watch
