// SPDX-License-Identifier: Apache-2.0
#include "frame/taking_turn.h"

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

// How late the thread stands in for an application that did not come back as quickly as before.
// The relay waits 20 ms for a frame to be read.
constexpr auto look_interval = 12ms;

// An application that was away for longer than this works on its frames.
constexpr auto quick_limit = 500us;

}  // namespace

using Clock = std::chrono::steady_clock;

void Taking_Turn::open() {
    const std::lock_guard guard(mutex_);
    closed_ = false;
    is_quick_ = false;
}

void Taking_Turn::close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    application_.notify_all();
    thread_.notify_all();
    application_.wait(lock, [this] { return holder_ != Holder::application; });
}

bool Taking_Turn::enter(Clock::time_point end, const Reasons& reasons) {
    std::unique_lock lock(mutex_);
    is_quick_ = Clock::now() - left_ < quick_limit;
    const auto is_free = [&] { return holder_ == Holder::nobody && !reasons.is_in_the_way(); };
    wanted_ = true;
    application_.wait_until(lock, end, [&] { return closed_ || reasons.is_queued() || is_free(); });
    wanted_ = false;
    if (closed_ || reasons.is_queued() || !is_free()) {
        return false;
    }
    holder_ = Holder::application;
    return true;
}

void Taking_Turn::leave() {
    const std::lock_guard guard(mutex_);
    holder_ = Holder::nobody;
    left_ = Clock::now();
    if (closed_) {
        application_.notify_all();  // who closes waits for this
    } else if (!is_quick_) {
        thread_.notify_one();
    }
}

void Taking_Turn::tell() {
    const std::lock_guard guard(mutex_);
    if (wanted_) {
        application_.notify_one();
    }
}

bool Taking_Turn::stand_in(const std::function<bool()>& has_other_work) {
    std::unique_lock lock(mutex_);
    while (!closed_ && !has_other_work() && (holder_ != Holder::nobody || wanted_)) {
        thread_.wait_for(lock, look_interval);
    }
    if (closed_ || has_other_work()) {
        return false;
    }
    holder_ = Holder::thread;
    return true;
}

void Taking_Turn::step_back() {
    const std::lock_guard guard(mutex_);
    holder_ = Holder::nobody;
    if (wanted_) {
        application_.notify_one();
    }
}

bool Taking_Turn::is_wanted() {
    const std::lock_guard guard(mutex_);
    return wanted_;
}

}  // namespace zav_shm
