// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

namespace zav_shm {

/// True while there is a process with this id, whoever may send it signals; one that has ended and
/// was not waited for counts. Ids as written into shared memory: what cannot be one names nobody.
inline bool process_exists(std::int64_t pid) {
    return pid > 0 && static_cast<pid_t>(pid) == pid &&
           (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH);
}

}  // namespace zav_shm
