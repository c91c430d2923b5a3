// SPDX-License-Identifier: Apache-2.0
#include "frame/consumer_link.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "control/control_protocol.h"

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

constexpr auto first_pause = 50ms;
constexpr auto greatest_pause = 2000ms;

// How often it is looked for a center while there is none.
constexpr auto look_interval = 50ms;

// What settling a pairing takes of the time in which frames are taken: less than the relay waits
// for one to be read. The answer may come to the next attempt.
constexpr auto settling_limit = 15ms;

using Clock = Backoff::Clock;

}  // namespace

Consumer_Link::Consumer_Link(std::string name, std::string producer, int channel, int stream)
    : link_(control::type::receiver, std::move(name), std::move(producer), channel, stream),
      retry_(first_pause, greatest_pause) {}

void Consumer_Link::open() {
    const Guard guard(control_);
    was_registered_ = false;
    state_ = Frame_State::waiting_for_center;
    const Guard small(small_);
    closing_ = false;
    retries_now_ = unpaired_ = false;
}

void Consumer_Link::begin_to_close() {
    const Guard guard(small_);
    closing_ = true;
    wake_.notify_all();
}

void Consumer_Link::leave(std::chrono::milliseconds limit) {
    const Guard guard(control_);
    if (reader() || link_.is_in_doubt()) {
        link_.deregister_end(limit);
        in_doubt_ = false;
    }
    const Guard small(small_);
    reader_.reset();
    state_ = Frame_State::closed;
}

// ---- registering ----

Consumer_Link::Attempt Consumer_Link::attempt(std::chrono::milliseconds limit) {
    const Guard guard(control_);
    if (is_unpaired()) {
        return Attempt::failed;
    }
    if (!use(link_.register_end(limit))) {
        retry_.failed();
        state_ = Frame_State::waiting_for_center;
        return Attempt::failed;
    }
    retry_.reset();
    in_doubt_ = link_.is_in_doubt();
    state_ = Frame_State::connected;
    return std::exchange(was_registered_, true) ? Attempt::again : Attempt::first;
}

bool Consumer_Link::is_unpaired() const {
    const Guard guard(small_);
    return unpaired_;
}

bool Consumer_Link::use(const Center_Link::Registration& made) {
    refused_ = made.outcome == Center_Link::Outcome::refused;
    reason_ = made.reason;
    if (!made) {
        return false;
    }
    auto reader =
        std::make_shared<Slot_Reader>(made.segment, made.sem_src, made.sem_dst, made.sem_exist);
    if (!reader->is_usable()) {
        reason_ = "cannot use the segment or the semaphores of " + made.segment;
        return false;
    }
    reason_.clear();
    registered_at_ = Clock::now();  // before anybody uses it
    const Guard small(small_);
    reader_ = std::move(reader);
    return true;
}

Opened Consumer_Link::opened() const {
    const Guard guard(control_);
    return {state_, reason_, refused_};
}

void Consumer_Link::wait_for_retry(Clock::time_point end) {
    const auto until = std::min(next_retry(), end);
    for (auto now = Clock::now(); now < until && !center_has_come(); now = Clock::now()) {
        std::this_thread::sleep_until(std::min(until, now + look_interval));
    }
}

Clock::time_point Consumer_Link::next_retry() const {
    const Guard guard(control_);
    return retry_.next();
}

bool Consumer_Link::center_has_come() {
    const Guard guard(control_);
    return link_.center_has_come();
}

bool Consumer_Link::wait_for_attempt() {
    bool due = false;
    Clock::time_point next;
    {
        const Guard guard(control_);
        if (link_.center_has_come()) {
            retry_.reset();
        }
        due = retry_.is_due();
        next = std::min(retry_.next(), Clock::now() + look_interval);
    }
    Waiting_Guard guard(small_);
    const auto wakes = [this]() ZAV_SHM_REQUIRES(small_) { return closing_ || retries_now_; };
    if (unpaired_) {
        wake_.wait(guard.lock(), wakes);
    } else if (!due) {
        wake_.wait_until(guard.lock(), next, wakes);
    }
    due = std::exchange(retries_now_, false) || due;
    return due && !closing_ && !unpaired_;
}

std::shared_ptr<Slot_Reader> Consumer_Link::reader() const {
    const Guard guard(small_);
    return reader_;
}

bool Consumer_Link::has_reader() const {
    const Guard guard(small_);
    return reader_ != nullptr;
}

void Consumer_Link::nobody_answers() {
    state_ = Frame_State::waiting_for_center;
    const Guard guard(small_);
    reader_.reset();
}

// ---- pairing ----

Opened Consumer_Link::pair(const std::string& producer, std::chrono::milliseconds limit) {
    const Guard guard(control_);
    if (producer == control::no_producer) {
        link_.deregister_end(limit);
        in_doubt_ = false;
        const Guard small(small_);
        unpaired_ = true;
        reader_.reset();
        state_ = Frame_State::waiting_for_producer;
        return {state_, {}, false};
    }
    const Center_Link::Registration made = link_.pair(producer, limit);
    in_doubt_ = link_.is_in_doubt();
    if (!made) {
        return {Frame_State::waiting_for_center, made.reason,
                made.outcome == Center_Link::Outcome::refused};
    }
    {
        const Guard small(small_);
        unpaired_ = false;
    }
    read_from(made);
    return {Frame_State::connected, {}, false};
}

// Semaphores of a center that has gone are no use for reading from the
// slot of another one's.
void Consumer_Link::read_from(const Center_Link::Registration& granted) {
    const std::shared_ptr<Slot_Reader> current = reader();
    if (current && !granted.is_of_another_center) {
        if (current->segment() != granted.segment) {
            current->change_shm(granted.segment.c_str());
        }
        state_ = Frame_State::connected;
        return;
    }
    if (current && use(granted)) {
        state_ = Frame_State::connected;
        return;
    }
    const Guard small(small_);
    reader_.reset();
    retries_now_ = true;
    wake_.notify_all();
}

void Consumer_Link::follow_pairing() {
    const Guard guard(control_);
    const std::shared_ptr<Slot_Reader> current = reader();
    if (!current) {
        return;
    }
    if (link_.is_in_doubt()) {
        settle();
        return;
    }
    const std::string segment = link_.follow_pairing(current->segment());
    if (!segment.empty()) {
        current->change_shm(segment.c_str());
    }
}

// What pair() asked for in vain may have been served since, or be served
// any time: then the posts would be of one producer and the slot of another. Asked for behind it,
// the producer that was granted last is what it comes to, as pair() has said.
void Consumer_Link::settle() {
    const Center_Link::Registration made = link_.settle(settling_limit);
    in_doubt_ = link_.is_in_doubt();
    if (made) {
        read_from(made);
    } else if (made.outcome == Center_Link::Outcome::refused) {
        nobody_answers();
    }
}

}  // namespace zav_shm
