// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <thread>

#include "ipc/annotated_mutex.h"

struct MHD_Connection;

namespace zav_shm::web {

/// Ends connections whose request does not come to its end: a client that sends a byte now and then
/// would hold its place for good.
///
/// Owner    of a thread, "zav_deadline".
/// Threads  any. A descriptor is not closed between begin() and end().
class Request_Deadline {
public:
    explicit Request_Deadline(std::chrono::milliseconds limit);
    ~Request_Deadline();
    Request_Deadline(const Request_Deadline&) = delete;
    Request_Deadline& operator=(const Request_Deadline&) = delete;

    /// A connection is there, and its request has the time of the limit from now on.
    void begin(const MHD_Connection* connection, int descriptor);

    /// The request is there; the answer may take as long as it likes.
    void is_met(const MHD_Connection* connection);

    /// The answer was sent: the next request has its time.
    void begin_next(const MHD_Connection* connection);

    /// The connection ends.
    void end(const MHD_Connection* connection);

private:
    using Clock = std::chrono::steady_clock;

    struct Waiting {
        int descriptor = -1;
        Clock::time_point end;
    };

    void run();

    const std::chrono::milliseconds limit_;
    Mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ ZAV_SHM_GUARDED_BY(mutex_) = false;
    std::map<const MHD_Connection*, Waiting> connections_ ZAV_SHM_GUARDED_BY(mutex_);
    std::thread thread_;
};

}  // namespace zav_shm::web
