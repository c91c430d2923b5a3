// SPDX-License-Identifier: Apache-2.0
#include "center/addressees.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace zav_shm {

namespace {

// More than a queue holds of the shortest replies.
constexpr std::size_t remembered_max = 1024;

constexpr std::chrono::seconds waited_for_max{5};

// A process that has ended and that its parent has not waited for still has its id.
bool has_ended(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t name_end = line.rfind(')');  // the name before it may hold anything
    const char state = name_end + 2 < line.size() ? line[name_end + 2] : '?';
    return name_end != std::string::npos && (state == 'Z' || state == 'X');
}

bool exists(long pid) {
    return static_cast<pid_t>(pid) == pid &&
           (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) &&
           !has_ended(static_cast<pid_t>(pid));
}

// The ids of a process from this PID namespace down to its own; empty when that cannot be told.
std::vector<pid_t> ids_of(pid_t pid) {
    const std::string title = "NSpid:";
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, title.size(), title) == 0) {
            std::istringstream numbers(line.substr(title.size()));
            std::vector<pid_t> ids;
            for (pid_t id = 0; numbers >> id;) {
                ids.push_back(id);
            }
            return ids;
        }
    }
    return {};
}

}  // namespace

void Addressees::replied(long addressee, Clock::time_point now) {
    Addressee& entry = known_[addressee];
    entry.last_reply = now;
    look_for(addressee, entry);
}

// A request may also name another process of the sender's own namespace: then that one counts.
void Addressees::look_for(long addressee, Addressee& found) {
    if (!sender_) {
        return;  // what was found before still holds
    }
    if (*sender_ == 0) {
        found.sight = Sight::out_of_sight;
        has_seen_other_namespaces_ = true;
        return;
    }
    const std::vector<pid_t> ids =
        *sender_ == addressee ? std::vector<pid_t>{*sender_} : ids_of(*sender_);
    if (ids.empty()) {
        return;
    }
    const bool is_in_other_namespace = ids.size() > 1;
    has_seen_other_namespaces_ = has_seen_other_namespaces_ || is_in_other_namespace;
    if (is_in_other_namespace && ids.back() != addressee) {
        found.sight = Sight::out_of_sight;
        return;
    }
    found.sight = Sight::here;
    found.process = is_in_other_namespace ? *sender_ : static_cast<pid_t>(addressee);
}

bool Addressees::is_gone(long addressee, const Addressee& entry, Clock::time_point now) const {
    const bool is_old = now - entry.last_reply >= waited_for_max;
    switch (entry.sight) {
        case Sight::here:
            return !exists(entry.process);
        case Sight::out_of_sight:
            return is_old;
        case Sight::unknown:
            break;
    }
    return !exists(addressee) && (is_old || !has_seen_other_namespaces_);
}

void Addressees::discard_gone(const std::function<void(long addressee)>& discard,
                              Clock::time_point now) {
    for (auto it = known_.begin(); it != known_.end();) {
        if (is_gone(it->first, it->second, now)) {
            discard(it->first);
            it = known_.erase(it);
        } else {
            ++it;
        }
    }
}

void Addressees::forget_all_but(const std::function<bool(long addressee)>& has_reply) {
    if (known_.size() > remembered_max) {
        std::erase_if(known_, [&](const auto& entry) { return !has_reply(entry.first); });
    }
}

}  // namespace zav_shm
