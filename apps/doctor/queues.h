// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/ipc.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zav_shm::doctor {

/// One System V queue, as the kernel shows it to everybody.
struct Queue {
    key_t key = 0;
    int id = -1;
    uid_t owner = 0;
    gid_t group = 0;
    mode_t mode = 0;
    std::uint64_t bytes = 0;  // in it
    std::uint64_t bytes_max = 0;
    std::uint64_t messages = 0;
    pid_t last_sender = 0;
    pid_t last_taker = 0;
};

/// All queues of this IPC namespace, also those that this process may not use.
std::vector<Queue> all_queues();

/// "0x0005a1f3"
std::string key_text(key_t key);

/// What follows from the folder /tmp of this process; nothing when there is none.
struct Queue_Keys {
    key_t requests = 0;
    key_t replies = 0;
};
std::optional<Queue_Keys> keys_of_this_process();

/// Keys of which /dev/shm holds the lock file of a center's daemon.
std::vector<key_t> keys_with_a_lock();

}  // namespace zav_shm::doctor
