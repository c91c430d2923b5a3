// SPDX-License-Identifier: Apache-2.0
#include "frame/link/center_link.h"

#include <semaphore.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

#include "control/center_page.h"
#include "control/control_protocol.h"
#include "control/json_text.h"
#include "ipc/file_inode.h"
#include "ipc/shared_memory_folder.h"
#include "ipc/zav_shm.h"

namespace zav_shm {

namespace {

using Outcome = Center_Link::Outcome;
using Registration = Center_Link::Registration;

// Sizes of segments are looked up below this directory; the safe layer works where centers do.
void set_root_path_once() {
    static std::once_flag done;
    std::call_once(done, [] { IPC_SHMEMORY::set_root_path(shared_memory_folder); });
}

std::optional<std::string> mismatch(const std::optional<Center_Page>& page) {
    if (!page || page->semaphore_bytes == 0 || page->semaphore_bytes == sizeof(sem_t)) {
        return {};
    }
    return "the center's semaphores have " + std::to_string(page->semaphore_bytes) +
           " bytes and this process's " + std::to_string(sizeof(sem_t)) +
           ": 32- and 64-bit processes cannot share a slot";
}

}  // namespace

std::string Channel_End::title() const {
    return name + "/" + std::to_string(channel) + "/" + std::to_string(stream);
}

Center_Link::Center_Link(Channel_End end, Way way) : end_(std::move(end)), way_(way) {
    set_root_path_once();
}

// ---- exchanges ----

Json::Value Center_Link::request(const char* command) const {
    Json::Value request;
    request[control::field::command] = command;
    request[control::field::type] = end_.type;
    request[control::field::name] = end_.name;
    request[control::field::channel] = end_.channel;
    request[control::field::stream] = end_.stream;
    request[way_ == Way::ring ? control::field::ring : control::field::relay] = true;
    if (!end_.card.empty()) {
        request[control::field::card] = end_.card;
    }
    return request;
}

Registration Center_Link::register_end(std::chrono::milliseconds limit) {
    tried_epoch_ = epoch_of_center();
    const bool was_there = is_center_alive(end_.folder);
    Json::Value registering = request(control::command::register_end);
    if (end_.type == std::string(control::type::receiver)) {
        registering[control::field::pair_name] = end_.producer;
    }
    Registration made = read(Control_Exchange::ask(std::move(registering), limit));
    if (made && !was_there) {
        tried_epoch_ = epoch_;  // the one that has come meanwhile, and answered, is not another
    }
    return made;
}

Registration Center_Link::pair(const std::string& producer, std::chrono::milliseconds limit) {
    Json::Value pairing = request(control::command::pair_source);
    pairing[control::field::pair_name] = producer;
    const Control_Exchange::Answer answer = Control_Exchange::ask(std::move(pairing), limit);
    Registration made;
    if (producer == control::no_producer && answer.granted()) {
        made.outcome = Outcome::granted;  // it names no slot
    } else {
        made = read(answer);
    }
    if (made) {
        end_.producer = producer == control::no_producer ? std::string() : producer;
    }
    return made;
}

void Center_Link::deregister_end(std::chrono::milliseconds limit) {
    Json::Value leaving = request(control::command::deregister_end);
    leaving[control::field::ring] = true;
    static_cast<void>(Control_Exchange::ask(std::move(leaving), limit));
}

Registration Center_Link::read(const Control_Exchange::Answer& answer) {
    Registration made;
    if (!answer.granted()) {
        const bool refused = answer.outcome != Control_Exchange::Outcome::no_center;
        made.outcome = refused ? Outcome::refused : Outcome::no_center;
        made.reason = refused ? end_.title() + ": " + answer.reason() : answer.reason();
        return made;
    }
    made.outcome = Outcome::granted;
    made.segment = text_at(answer.reply, control::field::shm_path);
    made.sem_src = text_at(answer.reply, control::field::sem_path_src);
    made.sem_dst = text_at(answer.reply, control::field::sem_path_dst);
    made.sem_exist = text_at(answer.reply, control::field::sem_path_exist);
    made.page_bytes = static_cast<std::size_t>(count_at(answer.reply, control::field::page_size));
    made.history_bytes =
        static_cast<std::size_t>(count_at(answer.reply, control::field::history_bytes));
    remember(made);
    const auto problem =
        way_ == Way::relay ? mismatch(read_center_page(end_.folder)) : std::nullopt;
    if (problem) {
        made.outcome = Outcome::refused;
        made.reason = *problem;
    }
    return made;
}

void Center_Link::remember(const Registration& made) {
    end_.folder = made.segment.substr(0, made.segment.rfind('/'));
    semaphore_file_ = semaphore_path(made.sem_src);
    semaphore_ = inode_of(semaphore_file_);
    epoch_ = epoch_of_center();
}

// ---- the center ----

std::uint64_t Center_Link::epoch_of_center() const {
    const auto page = read_center_page(end_.folder);
    return page ? page->epoch : 0;
}

// The page tells a restarted daemon; the semaphore's file also tells a center that has no page.
bool Center_Link::is_stale() const {
    const ino_t now = inode_of(semaphore_file_);
    if (now != 0 && now != semaphore_) {
        return true;
    }
    const auto page = read_center_page(end_.folder);
    return page && epoch_ != 0 && page->epoch != epoch_;
}

bool Center_Link::center_is_gone() const {
    return epoch_ != 0 && !is_center_alive(end_.folder);  // without a page nobody can tell
}

// The page is there once the center answers; a killed one's is removed by the next before it
// begins, so what is met again was there at the attempt.
bool Center_Link::center_has_come() const {
    const std::uint64_t epoch = epoch_of_center();
    return epoch != 0 && epoch != tried_epoch_;
}

// The greatest pauses of all ends of a process, and of others, fall together: one waking for all.
void Backoff::failed() {
    delay_ = delay_.count() == 0 ? first_ : std::min(2 * delay_, greatest_);
    const auto now = Clock::now();
    const auto begun = delay_ == greatest_ ? now.time_since_epoch() % delay_ : Clock::duration{};
    next_ = now - begun + delay_;
}

void Backoff::reset() {
    delay_ = std::chrono::milliseconds(0);
    next_ = {};
}

}  // namespace zav_shm
