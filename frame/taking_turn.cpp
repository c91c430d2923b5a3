// SPDX-License-Identifier: Apache-2.0
#include "frame/taking_turn.h"

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

// How late the thread stands in for an application that did not come back as quickly as before.
// The relay waits 20 ms for a frame to be read.
constexpr auto stand_in_after = 12ms;

// An application that was away for longer than this works on its frames.
constexpr auto quick_limit = 500us;

}  // namespace

void Taking_Turn::open() {
    const std::lock_guard guard(mutex_);
    closed_ = false;
    is_quick_ = false;
    due_ = {};
}

void Taking_Turn::close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    application_.notify_all();
    thread_.set(Clock::now());
    application_.wait(lock, [this] { return holder_ != Holder::application; });
}

bool Taking_Turn::enter(Clock::time_point now, Clock::time_point end, const Reasons& reasons) {
    std::unique_lock lock(mutex_);
    is_quick_ = now - left_ < quick_limit;
    const auto is_free = [&] { return holder_ == Holder::nobody && !reasons.is_in_the_way(); };
    const auto is_over = [&] { return closed_ || reasons.is_queued(); };
    bool free = is_free();
    if (!free && !is_over()) {
        if (holder_ == Holder::nobody) {
            thread_.set(now);  // for what is in the way
        }
        wanted_ = true;
        application_.wait_until(lock, end, [&] {
            free = is_free();
            return free || is_over();
        });
        wanted_ = false;
    }
    if (!free || is_over()) {
        if (holder_ == Holder::nobody) {
            thread_.set(due_);
        }
        return false;
    }
    holder_ = Holder::application;
    // At a rate above that of the alarm a needless ring now and then is cheaper than a system call
    // for each frame.
    if (is_rare_) {
        thread_.take_back();
    }
    return true;
}

void Taking_Turn::leave(Clock::time_point now) {
    const std::lock_guard guard(mutex_);
    is_rare_ = now - left_ > stand_in_after;
    holder_ = Holder::nobody;
    left_ = now;
    due_ = is_quick_ ? now + stand_in_after : now;
    if (closed_) {
        application_.notify_all();  // who closes waits for this
    } else {
        thread_.set(due_);
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
    const auto is_due = [this] {
        return holder_ == Holder::nobody && !wanted_ && Clock::now() >= due_;
    };
    while (!closed_ && !has_other_work() && !is_due()) {
        if (holder_ == Holder::nobody && !wanted_) {
            thread_.set(due_);
        }
        lock.unlock();
        thread_.wait();
        lock.lock();
        thread_.has_rung();
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
