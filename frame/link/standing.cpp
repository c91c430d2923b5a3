// SPDX-License-Identifier: Apache-2.0
#include "frame/link/standing.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "control/control_protocol.h"
#include "ipc/deadline.h"
#include "ipc/monotonic_clock.h"

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

using Clock = Link_Keeper::Clock;

constexpr auto first_pause = 50ms;
constexpr auto greatest_pause = 2000ms;

// What open() gives the center at a time: when it is to lose no time, and so that what a starting
// center has thrown away is asked for again.
constexpr std::chrono::milliseconds least_exchange = 20ms;
constexpr std::chrono::milliseconds greatest_exchange = 200ms;

// What pair() gives it at a time, so that it can be cut short.
constexpr std::chrono::milliseconds greatest_pairing = 1000ms;

// How often open() looks for a center, and anybody for a lock that is held through an exchange.
constexpr auto look_interval = 10ms;

// A center without a page can only be asked. This often, when nothing else shows that it has been
// restarted.
constexpr auto check_interval = 1000ms;

constexpr const char* no_answer_text = "no answer from the center";

constexpr auto when_woken = Clock::time_point::max();

// The checks of all ends of a process, and of others, fall together: one waking for all.
Clock::time_point next_check() {
    const auto now = Clock::now().time_since_epoch();
    return Clock::time_point(now - now % check_interval + check_interval);
}

std::chrono::milliseconds until(Clock::time_point end) {
    return std::max<std::chrono::milliseconds>(
        std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()), 1ms);
}

}  // namespace

Standing::Standing(Channel_End end, std::function<void()> changed)
    : link_(std::move(end), Center_Link::Way::ring),
      retry_(first_pause, greatest_pause),
      changed_(std::move(changed)),
      producer_(link_.end().producer),
      folder_(link_.folder()) {}

// ---- open and close ----

Opened Standing::open(std::chrono::milliseconds wait) {
    const auto end = moment_after(wait);
    const Guard guard(exchange_);
    state_ = Frame_State::waiting_for_center;
    while (!attempt(std::clamp<std::chrono::milliseconds>(until(end), least_exchange,
                                                          greatest_exchange)) &&
           state_ != Frame_State::refused && !is_cut_short_ && Clock::now() < end) {
        while (Clock::now() < std::min(end, retry_.next()) && !is_cut_short_ &&
               !link_.center_has_come()) {
            std::this_thread::sleep_for(look_interval);
        }
    }
    return opened();
}

void Standing::close(std::chrono::milliseconds limit) {
    const auto end = moment_after(limit);
    {
        const Guard guard(telling_);
        changed_ = nullptr;
    }
    cut_short();
    state_ = Frame_State::closed;
    if (!lock_until(exchange_, end)) {
        leaves_ = true;  // who has the lock looks at this when done
        return;
    }
    const Guard guard(exchange_, std::adopt_lock);
    if (grant().number != 0) {
        link_.deregister_end(until(end));
    }
}

// ---- exchanges ----

// Called with the lock held, as all that uses the link.
bool Standing::attempt(std::chrono::milliseconds limit) {
    const std::uint64_t wanted = renewals_wanted_;
    const Frame_State former = state_;
    const bool granted = take_note(link_.register_end(limit));
    if (granted) {
        renewals_granted_ = wanted;
        retry_.reset();
    } else {
        retry_.failed();
    }
    if (granted || state_ != former) {
        tell_change();  // not each attempt in vain: it wakes who is told
    }
    return granted;
}

bool Standing::take_note(const Center_Link::Registration& made) {
    const Guard guard(mutex_);
    reason_ = made.reason;
    if (state_ == Frame_State::closed) {
        return false;
    }
    if (!made) {
        const bool refused = made.outcome == Center_Link::Outcome::refused;
        state_ = refused ? Frame_State::refused : Frame_State::waiting_for_center;
        return false;
    }
    if (grant_.number != 0) {
        recoveries_.fetch_add(1, std::memory_order_relaxed);
    }
    grant_ = {grant_.number + 1, made};
    folder_ = link_.folder();
    producer_ = link_.end().producer;
    state_ = Frame_State::connected;
    return true;
}

void Standing::tell_change() {
    const Guard guard(telling_);
    if (changed_) {
        changed_();
    }
}

Opened Standing::pair(const std::string& producer, std::chrono::milliseconds limit) {
    const std::int64_t now_ns = monotonic_ns();
    const auto end = moment_after(limit);
    const auto no_answer = [limit] {
        return no_answer_text + (" within " + std::to_string(limit.count())) + " ms";
    };
    if (!lock_until(exchange_, end)) {
        return {state(), no_answer(), false};
    }
    const Guard exchanging(exchange_, std::adopt_lock);
    Center_Link::Registration made = ask_for_pairing(producer, end);
    while (made.outcome == Center_Link::Outcome::no_center && !is_cut_short_ &&
           Clock::now() + look_interval < end) {
        std::this_thread::sleep_for(look_interval);
        made = ask_for_pairing(producer, end);
    }
    if (!made) {
        if (made.reason.starts_with(no_answer_text)) {
            made.reason = no_answer();  // the last exchange had a part of the time only
        }
        return {Frame_State::waiting_for_center, made.reason,
                made.outcome == Center_Link::Outcome::refused};
    }
    {
        const Guard guard(mutex_);
        producer_ = link_.end().producer;
        state_ = Frame_State::connected;
    }
    paired_ns_ = now_ns;
    tell_change();
    return {producer == control::no_producer ? Frame_State::waiting_for_producer
                                             : Frame_State::connected,
            {},
            false};
}

// A center that has come since knows nothing of this consumer.
Center_Link::Registration Standing::ask_for_pairing(const std::string& producer,
                                                    Clock::time_point end) {
    end = std::min(end, Clock::now() + greatest_pairing);
    if (grant().number == 0 || link_.is_stale()) {
        Center_Link::Registration made = link_.register_end(until(end));
        if (!take_note(made)) {
            return made;
        }
        tell_change();
    }
    return link_.pair(producer, until(end));
}

void Standing::follow(const std::string& producer) {
    {
        const Guard guard(mutex_);
        producer_ = producer;
    }
    Link_Keeper::wake();  // which tells the link, when no exchange is under way
}

void Standing::renew() {
    ++renewals_wanted_;
    Link_Keeper::wake();
}

// ---- for the keeper ----

Clock::time_point Standing::keep(std::chrono::milliseconds limit) {
    if (!exchange_.try_lock()) {
        return Clock::now() + look_interval;
    }
    const Guard exchanging(exchange_, std::adopt_lock);
    Clock::time_point next = when_woken;
    if (state_ != Frame_State::closed) {
        link_.follow(producer());
        const bool was_granted = grant().number != 0;
        const bool has_come = link_.center_has_come();
        if (has_come) {
            retry_.reset();
        }
        const bool is_current = was_granted && is_renewed() && !has_come && !link_.is_stale();
        const bool waits_for_another = state_ == Frame_State::refused && !has_come;
        if (is_current) {
            const bool is_gone = link_.center_is_gone();
            state_ = is_gone ? Frame_State::waiting_for_center : Frame_State::connected;
            next = link_.has_page() ? when_woken : next_check();
        } else if (waits_for_another) {
            next = link_.has_page() ? when_woken : Clock::now() + greatest_pause;
        } else if (retry_.is_due()) {
            next = attempt(limit) ? when_woken : retry_.next();
        } else {
            next = retry_.next();
        }
    }
    if (leaves_.exchange(false)) {
        link_.deregister_end(limit);
    }
    return next;
}

// ---- asked from any thread ----

Opened Standing::opened() const {
    const Guard guard(mutex_);
    return {state_, reason_, state_ == Frame_State::refused};
}

Standing::Grant Standing::grant() const {
    const Guard guard(mutex_);
    return grant_;
}

std::string Standing::producer() const {
    const Guard guard(mutex_);
    return producer_;
}

std::string Standing::folder() const {
    const Guard guard(mutex_);
    return folder_;
}

std::string Standing::reason() const {
    const Guard guard(mutex_);
    if (reason_.empty() && state_ == Frame_State::waiting_for_center) {
        return "the center is gone";
    }
    return state_ == Frame_State::connected ? std::string() : reason_;
}

}  // namespace zav_shm
