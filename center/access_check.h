// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config/zav_shm_config.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm {

/// What an Access_Check has refused so far.
struct Refused_Outsiders {
    std::uint64_t count = 0;
    std::string latest;  // who wanted what
};

/// Who may produce and read what the configuration keeps for groups, by the credentials of the
/// process that asks.
///
/// The kernel tells the sender of a message where no other one has come meanwhile. Then its
/// credentials decide, whatever process the message names. Else those of the process that the
/// message names do: who lies there gets no reply, but the files of the slot and of the ring are
/// what keeps others out in any case. Who cannot be looked at, in a PID namespace that is not
/// visible or without /proc, is an outsider. Root and the own user never are.
///
/// Threads  the receive thread; refused() from any.
class Access_Check {
public:
    /// Begins to keep what this configuration wants kept; nothing without groups.
    void guard(const ZAV_SHM_CONFIG& config);

    /// Tells who sent the request that is looked at next: 0 for a process out of sight, nothing
    /// when that is not known.
    void request_comes_from(std::optional<pid_t> sender) { sender_ = sender; }

    /// @param pid  of the client, as the request has it
    bool may_produce(const std::string& name, int pid);
    bool may_read(const std::string& producer, int stream, int pid);

    Refused_Outsiders refused() const;

private:
    // A group that does not exist has nobody in it.
    struct Group {
        std::string name;
        std::optional<gid_t> id;
    };
    struct Guarded {
        std::optional<Group> producers;
        std::vector<std::optional<Group>> readers;  // of each stream
    };

    static std::optional<Group> group_of(const std::string& name);
    const Guarded* find(const std::string& producer) const;
    bool is_in(const Group& group, int pid, const std::string& wish);

    std::map<std::string, Guarded> guarded_;
    std::optional<pid_t> sender_;

    mutable Mutex mutex_;
    Refused_Outsiders refused_ ZAV_SHM_GUARDED_BY(mutex_);
};

}  // namespace zav_shm
