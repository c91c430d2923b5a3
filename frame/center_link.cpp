// SPDX-License-Identifier: Apache-2.0
#include "frame/center_link.h"

#include <semaphore.h>
#include <sys/stat.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <thread>

#include "control/center_page.h"
#include "control/center_status.h"
#include "control/control_protocol.h"
#include "control/json_text.h"
#include "ipc/deadline.h"
#include "ipc/shared_memory_folder.h"
#include "ipc/zav_shm.h"

namespace zav_shm {

namespace {

// How often it is looked whether a center has come: a few system calls each time.
constexpr std::chrono::milliseconds look_interval{50};

// From the moment that a center looks at its pairings to that of having written them down.
constexpr std::chrono::milliseconds status_delay{100};

using Outcome = Center_Link::Outcome;
using Registration = Center_Link::Registration;

// Sizes of segments are looked up below this directory; the safe layer works where centers do.
void set_root_path_once() {
    static std::once_flag done;
    std::call_once(done, [] { IPC_SHMEMORY::set_root_path(shared_memory_folder); });
}

ino_t inode_of(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

std::optional<std::string> mismatch(const std::optional<Center_Page>& page) {
    if (!page || page->semaphore_bytes == 0 || page->semaphore_bytes == sizeof(sem_t)) {
        return {};
    }
    return "the center's semaphores have " + std::to_string(page->semaphore_bytes) +
           " bytes and this process's " + std::to_string(sizeof(sem_t)) +
           ": 32- and 64-bit processes cannot share a channel";
}

}  // namespace

Center_Link::Center_Link(const char* type, std::string name, std::string producer, int channel,
                         int stream)
    : type_(type),
      name_(std::move(name)),
      producer_(std::move(producer)),
      channel_(channel),
      stream_(stream) {
    set_root_path_once();
}

Json::Value Center_Link::request(const char* command) const {
    Json::Value request;
    request[control::field::command] = command;
    request[control::field::type] = type_;
    request[control::field::name] = name_;
    request[control::field::channel] = channel_;
    request[control::field::stream] = stream_;
    return request;
}

// A consumer that somebody has paired with another producer would stay in that one's relay, too,
// and two relays would share its semaphores: so it leaves first, wherever it is. Not again while
// the registration behind that is unanswered: it may be served any time, and is not asked for
// twice.
Registration Center_Link::register_end(std::chrono::milliseconds limit) {
    const auto end = moment_after(limit);
    tried_epoch_ = epoch_of_center();
    if (!producer_.empty() && !has_left_) {
        const auto left = Control_Exchange::ask(request(control::command::deregister_end), limit);
        if (left.outcome != Control_Exchange::Outcome::replied) {
            return read(left);
        }
        has_left_ = true;
    }
    limit = std::max(std::chrono::duration_cast<std::chrono::milliseconds>(
                         end - std::chrono::steady_clock::now()),
                     std::chrono::milliseconds(1));
    Json::Value registering = request(control::command::register_end);
    if (!producer_.empty()) {
        registering[control::field::pair_name] = producer_;
    }
    Registration made = read(Control_Exchange::ask(std::move(registering), limit));
    has_left_ = has_left_ && made.outcome == Outcome::no_center;
    in_doubt_ = in_doubt_ && !made;
    return made;
}

// Without its queues an exchange fails at once; a center that starts makes them.
Registration Center_Link::pair(const std::string& producer, std::chrono::milliseconds limit) {
    const auto end = moment_after(limit);
    const auto left = [end] {
        return std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    };
    const auto attempt = [this, &producer, &left] {
        auto problem = problem_of_pairing(producer, left());
        return problem ? *problem : ask_for_pairing(producer, left());
    };
    Registration made = attempt();
    while (made.outcome == Outcome::no_center && left() > look_interval) {
        std::this_thread::sleep_for(look_interval);
        made = attempt();
    }
    return made;
}

Registration Center_Link::settle(std::chrono::milliseconds limit) {
    return ask_for_pairing(producer_, limit);
}

Registration Center_Link::ask_for_pairing(const std::string& producer,
                                          std::chrono::milliseconds limit) {
    Json::Value pairing = request(control::command::pair_source);
    pairing[control::field::pair_name] = producer;
    Registration made = read(Control_Exchange::ask(std::move(pairing), limit));
    if (made) {
        producer_ = producer;
        in_doubt_ = false;
    } else if (made.outcome == Outcome::no_center) {
        in_doubt_ = true;
    }
    return made;
}

// A name that nobody has is left to the center, which refuses it in words of its own.
std::optional<Registration> Center_Link::problem_of_pairing(const std::string& producer,
                                                            std::chrono::milliseconds limit) {
    Json::Value query;
    query[control::field::command] = control::command::query_shm;
    query[control::field::type] = control::type::distributor;
    query[control::field::name] = producer;
    const auto answer = Control_Exchange::ask(std::move(query), limit);
    if (answer.outcome != Control_Exchange::Outcome::replied) {
        return read(answer);
    }
    const int channels = number_at(answer.reply, control::field::channel);
    const int streams = number_at(answer.reply, control::field::stream);
    if (!answer.granted() || (channel_ < channels && stream_ < streams)) {
        return {};
    }
    Registration refused;
    refused.outcome = Outcome::refused;
    refused.reason = end_name() + ": " + producer + " has " + std::to_string(channels) +
                     " channels with " + std::to_string(streams) + " streams";
    return refused;
}

std::string Center_Link::follow_pairing(const std::string& segment) {
    granted_at_ = std::min(granted_at_, std::chrono::system_clock::now());  // it may be set back
    const auto producer =
        producer_feeding(folder_, {name_, channel_, stream_}, granted_at_ + status_delay);
    if (!producer) {
        return {};
    }
    producer_ = *producer;
    const std::string fed_from =
        folder_ + "/" + producer_ + "_" + std::to_string(channel_) + "_" + std::to_string(stream_);
    return fed_from == segment ? std::string() : fed_from;
}

void Center_Link::deregister_end(std::chrono::milliseconds limit) {
    static_cast<void>(Control_Exchange::ask(request(control::command::deregister_end), limit));
    in_doubt_ = false;
}

std::string Center_Link::end_name() const {
    return name_ + "/" + std::to_string(channel_) + "/" + std::to_string(stream_);
}

Registration Center_Link::read(const Control_Exchange::Answer& answer) {
    Registration made;
    if (!answer.granted()) {
        const bool refused = answer.outcome != Control_Exchange::Outcome::no_center;
        made.outcome = refused ? Outcome::refused : Outcome::no_center;
        made.reason = refused ? end_name() + ": " + answer.reason() : answer.reason();
        return made;
    }
    made.outcome = Outcome::registered;
    made.is_of_another_center = is_stale();
    made.segment = text_at(answer.reply, control::field::shm_path);
    made.sem_src = text_at(answer.reply, control::field::sem_path_src);
    made.sem_dst = text_at(answer.reply, control::field::sem_path_dst);
    made.sem_exist = text_at(answer.reply, control::field::sem_path_exist);
    remember(made);
    if (const auto problem = mismatch(read_center_page(folder_))) {
        made.outcome = Outcome::refused;
        made.reason = *problem;
    }
    return made;
}

void Center_Link::remember(const Registration& made) {
    folder_ = made.segment.substr(0, made.segment.rfind('/'));
    semaphore_file_ = semaphore_path(made.sem_src);
    semaphore_ = inode_of(semaphore_file_);
    epoch_ = epoch_of_center();
    granted_at_ = std::chrono::system_clock::now();
}

std::uint64_t Center_Link::epoch_of_center() const {
    const auto page = read_center_page(folder_);
    return page ? page->epoch : 0;
}

// The page tells a restarted daemon; the semaphore's file also tells a center that has no page.
bool Center_Link::is_stale() const {
    const ino_t now = inode_of(semaphore_file_);
    if (now != 0 && now != semaphore_) {
        return true;
    }
    const auto page = read_center_page(folder_);
    return page && epoch_ != 0 && page->epoch != epoch_;
}

bool Center_Link::center_is_gone() const {
    return epoch_ != 0 && !is_center_alive(folder_);  // without a page nobody can tell
}

// The page is there once the center answers; a killed one's is removed by the next before it
// begins, so what is met again was there at the attempt.
bool Center_Link::center_has_come() {
    const auto now = std::chrono::steady_clock::now();
    if (now < next_look_) {
        return false;
    }
    next_look_ = now + look_interval;
    const std::uint64_t epoch = epoch_of_center();
    return epoch != 0 && epoch != tried_epoch_;
}

void Center_Link::wait_for_center(std::chrono::steady_clock::time_point until) {
    for (auto now = std::chrono::steady_clock::now(); now < until && !center_has_come();
         now = std::chrono::steady_clock::now()) {
        std::this_thread::sleep_until(std::min(until, now + look_interval));
    }
}

void Backoff::failed() {
    delay_ = delay_.count() == 0 ? first_ : std::min(2 * delay_, greatest_);
    next_ = Clock::now() + delay_;
}

void Backoff::reset() {
    delay_ = std::chrono::milliseconds(0);
    next_ = {};
}

}  // namespace zav_shm
