// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>

#include "center/addressees.h"
#include "ipc/annotated_mutex.h"
#include "ipc/zav_msg_q.h"

namespace zav_shm {

/// Sends replies on the reply queue and never blocks.
///
/// The queue holds 16 KiB, some 70 replies. Replies to processes that died before they took
/// theirs stay in it; a center that waited for room would wait for ever, and nobody could
/// register. So when the queue is full, and only then, replies whose process is gone are
/// discarded, and the reply is tried once more.
///
/// Threads  any; sends exclude each other.
class Reply_Sender {
public:
    /// @param queue  outlives the sender; opened again when it was removed.
    explicit Reply_Sender(ZAV_MSG_Q& queue) : queue_(queue) {}

    /// Sends a record of `size` text bytes.
    ///
    /// @return 0, or -1 with errno: EAGAIN for a queue full of replies to living processes,
    ///         EINVAL for a message type below 1 or a size that is not 0 .. 1028.
    int send(const void* record, int size);

    /// Tells who sent a request, as far as that is known.
    void request_comes_from(std::optional<pid_t> sender);

private:
    int try_to_send(const void* record, int size) ZAV_SHM_REQUIRES(lock_);

    ZAV_MSG_Q& queue_ ZAV_SHM_GUARDED_BY(lock_);
    Mutex lock_;
    Addressees addressees_ ZAV_SHM_GUARDED_BY(lock_);  // whoever may have a reply waiting
};

}  // namespace zav_shm
