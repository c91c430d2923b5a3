// SPDX-License-Identifier: Apache-2.0
#include "apps/web/request_deadline.h"

#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>

namespace zav_shm::web {

Request_Deadline::Request_Deadline(std::chrono::milliseconds limit)
    : limit_(limit), thread_([this] { run(); }) {}

Request_Deadline::~Request_Deadline() {
    {
        const Guard guard(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void Request_Deadline::begin(const MHD_Connection* connection, int descriptor) {
    const Guard guard(mutex_);
    connections_[connection] = {descriptor, Clock::now() + limit_};
    changed_.notify_all();
}

void Request_Deadline::is_met(const MHD_Connection* connection) {
    const Guard guard(mutex_);
    if (const auto found = connections_.find(connection); found != connections_.end()) {
        found->second.end = Clock::time_point::max();
    }
}

void Request_Deadline::begin_next(const MHD_Connection* connection) {
    const Guard guard(mutex_);
    if (const auto found = connections_.find(connection); found != connections_.end()) {
        found->second.end = Clock::now() + limit_;
        changed_.notify_all();
    }
}

void Request_Deadline::end(const MHD_Connection* connection) {
    const Guard guard(mutex_);
    connections_.erase(connection);
}

// The connection's own thread sees the end of its stream, and closes.
void Request_Deadline::run() {
    pthread_setname_np(pthread_self(), "zav_deadline");
    Waiting_Guard guard(mutex_);
    while (!stopping_) {
        const auto now = Clock::now();
        auto next = Clock::time_point::max();
        for (auto& [connection, waiting] : connections_) {
            if (waiting.end <= now) {
                shutdown(waiting.descriptor, SHUT_RDWR);
                waiting.end = Clock::time_point::max();
            }
            next = std::min(next, waiting.end);
        }
        if (next == Clock::time_point::max()) {
            changed_.wait(guard.lock());
        } else {
            changed_.wait_until(guard.lock(), next);
        }
    }
}

}  // namespace zav_shm::web
