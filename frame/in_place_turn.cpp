// SPDX-License-Identifier: Apache-2.0
#include "frame/in_place_turn.h"

#include "ipc/deadline.h"

namespace zav_shm {

void In_Place_Turn::open() {
    const std::lock_guard guard(mutex_);
    closed_ = false;
}

void In_Place_Turn::close() {
    const std::lock_guard guard(mutex_);
    closed_ = true;
    changed_.notify_all();
}

Receive_Status In_Place_Turn::read(const In_Place& by, std::chrono::milliseconds time) {
    std::unique_lock lock(mutex_);
    if (closed_) {
        return Receive_Status::closed;
    }
    lent_ = &by;
    const bool ended = changed_.wait_until(lock, moment_after(time),
                                           [this] { return lent_ == nullptr || closed_; });
    lent_ = nullptr;
    changed_.wait(lock, [this] { return !in_use_; });
    if (closed_) {
        return Receive_Status::closed;
    }
    return ended ? Receive_Status::frame : Receive_Status::timeout;
}

const In_Place_Turn::In_Place* In_Place_Turn::begin() {
    const std::lock_guard guard(mutex_);
    in_use_ = lent_ != nullptr;
    return lent_;
}

void In_Place_Turn::end(bool for_good) {
    const std::lock_guard guard(mutex_);
    in_use_ = false;
    if (for_good) {
        lent_ = nullptr;
    }
    if (lent_ == nullptr) {
        changed_.notify_all();
    }
}

}  // namespace zav_shm
