// SPDX-License-Identifier: Apache-2.0
#include "frame/taking_turn.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

using Duration = Taking_Turn::Clock::duration;

// How late the thread stands in for an application that did not come back as quickly as before.
// The relay waits 20 ms for a frame to be read.
constexpr Duration stand_in_after = 12ms;

// It may be later when the next frame is not due before: that is known of a stream of up to 35
// frames per second that came at an even pace for some time. After one that is late the next one
// may come at once.
constexpr Duration least_interval = 28ms;
constexpr Duration jitter = 4ms;
constexpr int even_frames = 8;

// Until the next call of stay(), which may be late: an alarm further away need not be put off yet.
constexpr Duration until_stay = 22ms;

// Beyond that, so that between a frame and the next wait there is no system call to make.
constexpr Duration alarm_after_frame = 24ms;

constexpr Duration no_frame_expected = 1s;

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
    put_alarm_off(now);
    return true;
}

void Taking_Turn::leave(Clock::time_point now) {
    const std::lock_guard guard(mutex_);
    holder_ = Holder::nobody;
    const auto interval = now - left_;
    const bool is_even = interval >= least_interval && interval <= interval_ + jitter;
    even_ = is_even ? std::min(even_ + 1, even_frames) : 0;
    interval_ = interval;
    left_ = now;
    due_ = is_quick_ ? now + stand_in_after : now;
    const bool may_be_later = is_quick_ && even_ == even_frames;
    if (closed_) {
        application_.notify_all();  // who closes waits for this
    } else if (!thread_.rings_by(may_be_later ? now + alarm_after_frame + jitter : due_)) {
        thread_.set(due_);
    }
}

void Taking_Turn::stay(Clock::time_point now) {
    const std::lock_guard guard(mutex_);
    put_alarm_off(now);
}

// At a rate above that of the alarm a needless ring now and then is cheaper than a system call for
// each frame. The ring that ends the thread stays.
void Taking_Turn::put_alarm_off(Clock::time_point now) {
    if (closed_ || interval_ <= stand_in_after || !thread_.rings_by(now + until_stay)) {
        return;
    }
    const auto after_next = left_ + interval_ + alarm_after_frame;
    const bool is_expected = even_ == even_frames && after_next > now + until_stay;
    thread_.move_to(is_expected ? after_next : now + no_frame_expected);
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
    even_ = 0;  // frames come that the application does not see
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
