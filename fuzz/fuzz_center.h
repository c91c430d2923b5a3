// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "center/shm_center.h"
#include "config/zav_shm_config.h"
#include "ipc/zav_msg_q.h"

namespace zav_shm::fuzz {

/// One message of the reply queue.
struct Reply {
    long type;
    std::string text;
};

/// A running center on real queues and segments, in namespaces of this process alone.
///
/// Its relays are stopped, only their lists are left to work on: a relay in its cycle would hold
/// its list for up to 35 ms per paired consumer, and here all consumers are absent.
///
/// Owner    one per process; never destroyed: threads and namespaces end with the process.
/// Threads  the receive thread is idle unless something is sent to the request queue.
class Fuzz_Center {
public:
    /// Makes the center with the first call; the process ends when it cannot be made.
    static Fuzz_Center& instance();

    Fuzz_Center(const Fuzz_Center&) = delete;
    Fuzz_Center& operator=(const Fuzz_Center&) = delete;

    ZAV_SHM_CENTER& center() { return *center_; }

    /// Puts a message on the request queue.
    ///
    /// @return false when there is no room: the center has stopped taking them.
    bool send_request(long type, std::string_view bytes);

    /// Takes all replies off their queue, oldest first; never waits.
    std::vector<Reply> take_replies();

    /// Unpairs all consumers and switches the idle kick off, so that an input finds the same
    /// center whatever came before it. Only unknown names that were asked for stay remembered.
    void reset();

private:
    Fuzz_Center();
    void stop_relays();

    std::unique_ptr<ZAV_SHM_CONFIG> config_;
    std::unique_ptr<ZAV_SHM_CENTER> center_;
    ZAV_MSG_Q requests_;
    ZAV_MSG_Q replies_;
    std::set<SHM_Stream_Transmission*> relays_;  // the manager's
};

}  // namespace zav_shm::fuzz
