// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <string>

#include "center/center_event.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm::centerd {

/// What clients have asked the center for, as counts for the status and as lines of the log: who
/// comes, goes and is paired with "info", who is refused with "warning".
///
/// Threads  any.
class Request_Account {
public:
    void add(const Center_Event& event);

    /// {"requests": {"register": 3, ...}, "refused": 1, "pairings": 2}: `requests` by command,
    /// those that were none as "other"; `pairings` are consumers that got a producer.
    void write_to(Json::Value& status) const;

private:
    mutable Mutex mutex_;
    std::map<std::string, std::uint64_t> requests_ ZAV_SHM_GUARDED_BY(mutex_);
    std::uint64_t refused_ ZAV_SHM_GUARDED_BY(mutex_) = 0;
    std::uint64_t pairings_ ZAV_SHM_GUARDED_BY(mutex_) = 0;
};

}  // namespace zav_shm::centerd
