// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "ipc/zav_msg_q.h"

namespace zav_shm {
class Control_Reply;
}

/// A client process's way to the center: one request at a time on the request queue, and the wait
/// for the reply that is addressed to this process. The clients of producers and consumers derive
/// from it; not to be deleted through a pointer to this class, whose destructor is not virtual.
///
/// Owner    the process that talks. Both queues are made by whoever comes first, center or
///          client; destruction leaves them in place.
/// Threads  one thread of a process at a time, over all of its client objects: replies are
///          addressed by process id only, so two threads take each other's. A process that forks
///          builds its clients in the child: the id is taken at construction.
/// Blocking sending waits while the request queue is full; receiving waits for a reply without any
///          limit, also when no center runs. A signal handler ends either wait early (EINTR).
/// Errors   shown in results; nothing is printed and nothing throws. A queue that could not be had
///          makes every later call fail.
/// Crash    a request that was sent is served all the same, and its reply stays in the queue: a
///          later process of the same id, or the next exchange after an interrupted one, takes it
///          for its own. The center's next start drains both queues.
class ZAV_SHM_CLIENT_BASE {
public:
    /// Takes the process id and opens both queues.
    ZAV_SHM_CLIENT_BASE();
    ZAV_SHM_CLIENT_BASE(const ZAV_SHM_CLIENT_BASE&) = delete;
    ZAV_SHM_CLIENT_BASE& operator=(const ZAV_SHM_CLIENT_BASE&) = delete;
    ~ZAV_SHM_CLIENT_BASE() = default;

    /// Opens, or makes without any permission bits, the request queue and then the reply queue.
    ///
    /// @return the id of the reply queue; -1 with errno when it could not be had. The request
    ///         queue's result shows in the first send.
    int init_msgq();

    /// Sends `len` bytes of text as one request: a record of type 1 with 1028 text bytes, filled
    /// up with zero bytes.
    ///
    /// @return true when the queue took it; false with errno otherwise, EINVAL for a null text and
    ///         for a length that is not 0 .. 1024.
    bool send_msg(const char* text, int len);

    /// Sends a whole record, a `long` message type and `size` text bytes behind it.
    ///
    /// @return 0, or -1 with errno.
    int send_q(const void* record, int size);

    /// Takes the oldest reply to this process.
    ///
    /// @param buffer  room for a `long` message type and `size` text bytes behind it; the text has
    ///                no terminating NUL.
    /// @param size    text bytes, 1028 in every exchange.
    /// @return the length of the text, or -1 with errno. A reply longer than 1028 bytes is E2BIG,
    ///         and is taken off the queue: left there, it would fail every later receive, too.
    int recv_msg(void* buffer, int size);
    int recv_q(void* buffer, int size);

protected:
    /// One exchange: sends the request and waits for the reply. A receive that fails counts as an
    /// empty reply.
    ///
    /// @return the reply; nothing when the request could not be sent, or a reply without any text
    ///         came.
    std::optional<zav_shm::Control_Reply> exchange(const std::string& request);

    const int pid;        // of this process; addresses the replies
    ZAV_MSG_Q recv_msgq;  // replies
    ZAV_MSG_Q send_msgq;  // requests

private:
    void discard_oldest_reply() const;
};
