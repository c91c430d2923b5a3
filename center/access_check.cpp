// SPDX-License-Identifier: Apache-2.0
#include "center/access_check.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "ipc/unix_group.h"

namespace zav_shm {

namespace {

/// What a process may do with files.
struct Credentials {
    uid_t user = 0;
    std::vector<gid_t> groups;
};

// Of "Uid:" and "Gid:" the fourth number, which files are judged by.
std::optional<Credentials> credentials_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    Credentials found;
    bool has_user = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string title;
        words >> title;
        unsigned long number = 0;
        if (title == "Uid:" || title == "Gid:") {
            for (int i = 0; i < 4; ++i) {
                words >> number;
            }
            if (title == "Gid:") {
                found.groups.push_back(static_cast<gid_t>(number));
            } else {
                found.user = static_cast<uid_t>(number);
                has_user = !words.fail();
            }
        } else if (title == "Groups:") {
            while (words >> number) {
                found.groups.push_back(static_cast<gid_t>(number));
            }
        }
    }
    return has_user ? std::optional(found) : std::nullopt;
}

std::string title_of(pid_t pid, const std::optional<Credentials>& found) {
    return pid <= 0 ? "a process that is not visible from here"
           : found  ? "process " + std::to_string(pid) + " (user " + user_title(found->user) + ")"
                    : "process " + std::to_string(pid) + ", which cannot be looked at,";
}

}  // namespace

void Access_Check::guard(const ZAV_SHM_CONFIG& config) {
    for (const auto* const producer : config.distributors()) {
        Guarded guarded{group_of(producer->producers), {}};
        bool keeps = guarded.producers.has_value();
        for (const auto* const stream : config.streams()) {
            guarded.readers.push_back(group_of(readers_group(*producer, *stream)));
            keeps = keeps || guarded.readers.back();
        }
        if (keeps) {
            guarded_.emplace(producer->name, std::move(guarded));
        }
    }
}

std::optional<Access_Check::Group> Access_Check::group_of(const std::string& name) {
    return name.empty() ? std::nullopt : std::optional(Group{name, group_id(name)});
}

const Access_Check::Guarded* Access_Check::find(const std::string& producer) const {
    const auto found = guarded_.find(producer);
    return found == guarded_.end() ? nullptr : &found->second;
}

bool Access_Check::may_produce(const std::string& name, int pid) {
    const Guarded* const guarded = find(name);
    return guarded == nullptr || !guarded->producers ||
           is_in(*guarded->producers, pid, "produce " + name);
}

// Streams that are not there are refused, or ignored, elsewhere.
bool Access_Check::may_read(const std::string& producer, int stream, int pid) {
    const Guarded* const guarded = find(producer);
    const bool is_there = guarded != nullptr && stream >= 0 &&
                          static_cast<std::size_t>(stream) < guarded->readers.size();
    const auto* const group =
        is_there ? &guarded->readers[static_cast<std::size_t>(stream)] : nullptr;
    return group == nullptr || !*group ||
           is_in(**group, pid, "read " + producer + ", stream " + std::to_string(stream));
}

bool Access_Check::is_in(const Group& group, int pid, const std::string& wish) {
    const pid_t asks = sender_.value_or(pid);
    const auto found = asks > 0 ? credentials_of(asks) : std::nullopt;
    const bool is_inside =
        found && (found->user == 0 || found->user == geteuid() ||
                  (group.id && std::find(found->groups.begin(), found->groups.end(), *group.id) !=
                                   found->groups.end()));
    if (!is_inside) {
        const Guard guard(mutex_);
        ++refused_.count;
        refused_.latest = title_of(asks, found) + " wanted to " + wish + ", which is for group " +
                          group.name + " only";
    }
    return is_inside;
}

Refused_Outsiders Access_Check::refused() const {
    const Guard guard(mutex_);
    return refused_;
}

}  // namespace zav_shm
