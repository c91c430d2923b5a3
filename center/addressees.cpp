// SPDX-License-Identifier: Apache-2.0
#include "center/addressees.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <system_error>

#include "ipc/process_exists.h"

namespace zav_shm {

namespace {

// More than a queue holds of the shortest replies.
constexpr std::size_t remembered_max = 1024;

constexpr std::chrono::seconds waited_for_max{5};

/// What /proc/<id>/status says of a process.
struct Process_Status {
    bool has_ended = false;  // and its parent has not waited for it
    long own_id = 0;         // in its own PID namespace; 0 when that cannot be told
};

Process_Status status_of(const std::string& id) {
    Process_Status status;
    std::ifstream file("/proc/" + id + "/status");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string title;
        words >> title;
        if (title == "State:") {
            std::string state;
            words >> state;
            status.has_ended = state == "Z" || state == "X";
        } else if (title == "NSpid:") {  // from this namespace down to its own
            for (long deeper = 0; words >> deeper;) {
                status.own_id = deeper;
            }
        }
    }
    return status;
}

bool is_running(long pid) {
    return process_exists(pid) && !status_of(std::to_string(pid)).has_ended;
}

std::set<long> own_ids_of_all() {
    std::set<long> ids;
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (std::all_of(name.begin(), name.end(),
                        [](unsigned char digit) { return std::isdigit(digit) != 0; })) {
            const Process_Status status = status_of(name);
            if (!status.has_ended) {
                ids.insert(status.own_id);
            }
        }
    }
    return ids;
}

}  // namespace

void Addressees::discard_gone(const std::function<void(long addressee)>& discard,
                              Clock::time_point now) {
    std::optional<std::set<long>> ids;  // looked up when somebody is not there by the own id
    const auto lives = [&ids](long addressee) {
        if (is_running(addressee)) {
            return true;
        }
        if (!ids) {
            ids = own_ids_of_all();
        }
        return ids->count(addressee) > 0;
    };
    std::erase_if(last_reply_, [&](const auto& entry) {
        const auto& [addressee, last_reply] = entry;
        const bool may_be_out_of_sight =
            some_are_out_of_sight_ && now - last_reply < waited_for_max;
        const bool is_gone = !may_be_out_of_sight && !lives(addressee);
        if (is_gone) {
            discard(addressee);
        }
        return is_gone;
    });
}

void Addressees::forget_all_but(const std::function<bool(long addressee)>& has_reply) {
    if (last_reply_.size() > remembered_max) {
        std::erase_if(last_reply_, [&](const auto& entry) { return !has_reply(entry.first); });
    }
}

}  // namespace zav_shm
