// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "control/route_page.h"
#include "ipc/annotated_mutex.h"
#include "stream/channel_key.h"

namespace zav_shm {

/// A consumer channel that reads a ring, and who does, when somebody looked.
struct Ring_Consumer_Snapshot {
    std::string name;
    int channel = 0;
    int stream = 0;
    std::string producer;  // empty: nobody feeds it
    std::vector<long> pids;
};

/// The center's books of consumers that read their producer's ring themselves: no relay has them in
/// its list, so they cost none a wait. The center checks them, remembers whose frames they are to
/// have, and tells them by their route pages when that changes.
///
/// Several processes may be the same consumer: each reads the ring for itself.
///
/// Owner    of the route pages, which go with their consumers, and with this object.
/// Threads  any; the lock is held for the writing of pages, which are small files in memory.
/// Crash    the pages stay; the next center removes them. Consumers go on with the route that they
///          have.
class Ring_Consumers {
public:
    using Key = Shm_Stream_Transmission_Index;

    /// Removes the pages that an earlier center left.
    ///
    /// @param folder  "/dev/shm/shm/rings"; made, for the own user, with the first consumer.
    explicit Ring_Consumers(std::string folder);
    ~Ring_Consumers();
    Ring_Consumers(const Ring_Consumers&) = delete;
    Ring_Consumers& operator=(const Ring_Consumers&) = delete;

    /// A process that reads as this consumer. Its card is a file in the folder that it keeps locked
    /// while it lives; without one its process id has to do.
    struct Member {
        long pid = 0;
        std::string card;

        bool operator==(const Member&) const = default;
    };

    void add(const Key& consumer, const std::string& producer, const Member& member);
    void remove(const Key& consumer, const Member& member);

    /// True when a process that lives reads as this consumer. Forgets those that do not.
    bool has(const Key& consumer);

    /// From now on this is the consumer's producer; empty: none.
    void pair(const Key& consumer, const std::string& producer);

    /// A producer has said where its frames are.
    void producer_uses(const Key& producer, Route_Page::Source source);
    Route_Page::Source source_of(const Key& producer) const;

    /// The one process that may take frames through the relay for this consumer: two would take
    /// each other's posts.
    ///
    /// @return 0 when this process may, and is remembered; else the process that does.
    long take_relay(const Key& consumer, const Member& member);

    /// @return false when it was not the one.
    bool leave_relay(const Key& consumer, const Member& member);

    std::vector<Ring_Consumer_Snapshot> snapshot() const;

    /// Forgets the processes that are gone, now and when this was called last: one of another PID
    /// namespace shows no sign of life between its registration and its card.
    void forget_gone();

private:
    struct Entry {
        std::string producer;
        std::vector<Member> members;
        std::vector<Member> missed;  // of the members, those that forget_gone() did not find
    };

    bool is_alive(const Member& member) const;
    void forget_dead(const Key& consumer) ZAV_SHM_REQUIRES(mutex_);
    void write_page(const Key& consumer, const std::string& producer) ZAV_SHM_REQUIRES(mutex_);
    void remove_page(const Key& consumer) const;
    std::string path_of(const Key& key) const;
    void wake_readers_of(const Key& consumer, const std::string& producer) const;
    void remove_all_pages() const;

    const std::string folder_;
    mutable Mutex mutex_;
    std::map<Key, Entry> entries_ ZAV_SHM_GUARDED_BY(mutex_);
    std::map<Key, Member> relay_users_ ZAV_SHM_GUARDED_BY(mutex_);
    std::map<Key, Route_Page::Source> sources_ ZAV_SHM_GUARDED_BY(mutex_);  // by producer
};

}  // namespace zav_shm
