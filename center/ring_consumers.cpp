// SPDX-License-Identifier: Apache-2.0
#include "center/ring_consumers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

#include "ipc/descriptor.h"
#include "ipc/file_lock.h"
#include "ipc/futex.h"
#include "ipc/process_exists.h"
#include "ipc/random_epoch.h"
#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm {

namespace {

constexpr mode_t own_folder = 0700;

// More consumers than any configuration has that a device can hold: requests of clients cannot make
// the books grow without end.
constexpr std::size_t entries_max = 65536;

}  // namespace

Ring_Consumers::Ring_Consumers(std::string folder) : folder_(std::move(folder)) {
    remove_all_pages();
}

Ring_Consumers::~Ring_Consumers() { remove_all_pages(); }

// ---- the books ----

void Ring_Consumers::add(const Key& consumer, const std::string& producer, const Member& member) {
    const Guard guard(mutex_);
    if (entries_.size() >= entries_max && !entries_.contains(consumer)) {
        return;
    }
    Entry& entry = entries_[consumer];
    std::erase_if(entry.members, [this, &member](const Member& other) {
        return other == member || !is_alive(other);
    });
    entry.members.push_back(member);
    const std::string former = std::exchange(entry.producer, producer);
    write_page(consumer, producer);
    if (former != producer) {
        wake_readers_of(consumer, former);
    }
}

void Ring_Consumers::remove(const Key& consumer, const Member& member) {
    const Guard guard(mutex_);
    const auto entry = entries_.find(consumer);
    if (entry == entries_.end()) {
        return;
    }
    std::erase(entry->second.members, member);
    forget_dead(consumer);
}

bool Ring_Consumers::has(const Key& consumer) {
    const Guard guard(mutex_);
    forget_dead(consumer);
    return entries_.contains(consumer);
}

void Ring_Consumers::pair(const Key& consumer, const std::string& producer) {
    const Guard guard(mutex_);
    const auto entry = entries_.find(consumer);
    if (entry == entries_.end()) {
        return;
    }
    const std::string former = std::exchange(entry->second.producer, producer);
    write_page(consumer, producer);
    wake_readers_of(consumer, former);
}

void Ring_Consumers::producer_uses(const Key& producer, Route_Page::Source source) {
    const Guard guard(mutex_);
    if (sources_.size() >= entries_max && !sources_.contains(producer)) {
        return;
    }
    if (std::exchange(sources_[producer], source) == source) {
        return;
    }
    for (const auto& [consumer, entry] : entries_) {
        if (entry.producer == producer.name && consumer.channel == producer.channel &&
            consumer.stream == producer.stream) {
            write_page(consumer, entry.producer);
            wake_readers_of(consumer, entry.producer);
        }
    }
}

Route_Page::Source Ring_Consumers::source_of(const Key& producer) const {
    const Guard guard(mutex_);
    const auto found = sources_.find(producer);
    return found == sources_.end() ? Route_Page::unknown : found->second;
}

long Ring_Consumers::take_relay(const Key& consumer, const Member& member) {
    const Guard guard(mutex_);
    if (relay_users_.size() >= entries_max && !relay_users_.contains(consumer)) {
        return 0;
    }
    Member& user = relay_users_[consumer];
    if (user.pid != 0 && user != member && is_alive(user)) {
        return user.pid;
    }
    user = member;
    return 0;
}

bool Ring_Consumers::leave_relay(const Key& consumer, const Member& member) {
    const Guard guard(mutex_);
    const auto user = relay_users_.find(consumer);
    if (user == relay_users_.end() || user->second != member) {
        return false;
    }
    relay_users_.erase(user);
    return true;
}

std::vector<Ring_Consumer_Snapshot> Ring_Consumers::snapshot() const {
    const Guard guard(mutex_);
    std::vector<Ring_Consumer_Snapshot> taken;
    for (const auto& [key, entry] : entries_) {
        Ring_Consumer_Snapshot consumer{key.name, key.channel, key.stream, entry.producer, {}};
        for (const Member& member : entry.members) {
            consumer.pids.push_back(member.pid);
        }
        taken.push_back(std::move(consumer));
    }
    return taken;
}

void Ring_Consumers::forget_gone() {
    const Guard guard(mutex_);
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        std::vector<Member>& members = entry->second.members;
        std::vector<Member>& missed = entry->second.missed;
        const auto was_missed = [&missed](const Member& member) {
            return std::find(missed.begin(), missed.end(), member) != missed.end();
        };
        std::vector<Member> missed_now;
        std::copy_if(members.begin(), members.end(), std::back_inserter(missed_now),
                     [this](const Member& member) { return !is_alive(member); });
        std::erase_if(members, [&](const Member& member) {
            return was_missed(member) &&
                   std::find(missed_now.begin(), missed_now.end(), member) != missed_now.end();
        });
        missed = std::move(missed_now);
        if (members.empty()) {
            remove_page(entry->first);
            entry = entries_.erase(entry);
        } else {
            ++entry;
        }
    }
}

// A process of another PID namespace has another id here, or none: its card tells more. It makes
// that once it is registered. What cannot be opened tells nothing, and counts as alive.
bool Ring_Consumers::is_alive(const Member& member) const {
    if (is_file_name(member.card)) {
        const Descriptor card(open((folder_ + "/" + member.card).c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        if (card.is_open()) {
            const File_Lock_State state = look_at_file_lock(card.get());
            return state == File_Lock_State::exclusive || state == File_Lock_State::unknown;
        }
        if (errno != ENOENT) {
            return true;
        }
    }
    return process_exists(member.pid);
}

void Ring_Consumers::forget_dead(const Key& consumer) {
    const auto entry = entries_.find(consumer);
    if (entry == entries_.end()) {
        return;
    }
    std::erase_if(entry->second.members,
                  [this](const Member& member) { return !is_alive(member); });
    if (entry->second.members.empty()) {
        entries_.erase(entry);
        remove_page(consumer);
    }
}

// ---- the pages ----

std::string Ring_Consumers::path_of(const Key& key) const {
    return route_path(folder_, key.name, key.channel, key.stream);
}

// A page that cannot be written leaves the consumer on its former route; the tools show which one
// it reads.
void Ring_Consumers::write_page(const Key& consumer, const std::string& producer) {
    if (!is_file_name(consumer.name)) {
        return;
    }
    mkdir(folder_.c_str(), own_folder);
    const auto source = sources_.find({producer, consumer.channel, consumer.stream});
    Route route{producer, source == sources_.end() ? Route_Page::unknown : source->second,
                random_epoch()};
    static_cast<void>(write_route(path_of(consumer), route));
}

void Ring_Consumers::remove_page(const Key& consumer) const { unlink(path_of(consumer).c_str()); }

void Ring_Consumers::wake_readers_of(const Key& consumer, const std::string& producer) const {
    if (!producer.empty()) {
        futex_wake_in_file(ring_path(folder_, producer, consumer.channel, consumer.stream),
                           ring_sleep_offset);
    }
}

void Ring_Consumers::remove_all_pages() const {
    std::error_code error;
    std::filesystem::directory_iterator file(folder_, error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        const std::string name = file->path().filename();
        if (name.ends_with(".route") || name.ends_with(".route.new")) {
            unlink(file->path().c_str());
        }
    }
}

}  // namespace zav_shm
