// SPDX-License-Identifier: Apache-2.0
#include "bindings/c/handles.h"

#include <pthread.h>

#include <array>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "bindings/c/errors.h"
#include "ipc/forks.h"

namespace zav_shm::c_interface {

namespace {

constexpr std::uint64_t kinds = 4;  // a handle is a serial number times this, plus its kind

struct Entry {
    std::shared_ptr<void> object;
    unsigned forks = 0;  // when it was opened
};

struct Table {
    std::mutex mutex;  // held for a few instructions; guards the rest
    std::uint64_t serial = 0;
    std::unordered_map<std::uint64_t, Entry> entries;
};

// Never destroyed: threads may use it while the process ends. A child of fork() finds the mutex
// free, whatever the parent's other threads were doing.
Table& table() {
    static Table* const the_table = [] {
        auto* const made = std::make_unique<Table>().release();
        pthread_atfork([] { table().mutex.lock(); }, [] { table().mutex.unlock(); },
                       [] { table().mutex.unlock(); });
        return made;
    }();
    return *the_table;
}

const char* name_of(Kind kind) {
    constexpr std::array names{"", "publisher", "subscriber", "view"};
    return names.at(static_cast<std::size_t>(kind));
}

Found<void> refuse(Kind kind, std::uint64_t handle, zav_shm_status status, const char* why) {
    return {nullptr,
            fail(status, std::string(name_of(kind)) + " " + std::to_string(handle) + ": " + why)};
}

Found<void> look_up(Kind kind, std::uint64_t handle, bool takes) {
    Table& handles = table();
    std::uint64_t latest = 0;
    bool is_of_parent = false;
    {
        const std::lock_guard guard(handles.mutex);
        latest = handles.serial;
        const auto place = handles.entries.find(handle);
        if (handle % kinds == static_cast<std::uint64_t>(kind) && place != handles.entries.end()) {
            is_of_parent = place->second.forks != forks_so_far();
            if (!is_of_parent) {
                Found<void> found{place->second.object, ZAV_SHM_OK};
                if (takes) {
                    handles.entries.erase(place);
                }
                return found;
            }
        }
    }
    if (is_of_parent) {
        return refuse(kind, handle, ZAV_SHM_CLOSED, "was opened by the parent of this process");
    }
    if (handle == 0) {
        return refuse(kind, handle, ZAV_SHM_BAD_HANDLE, "is none");
    }
    if (handle % kinds != static_cast<std::uint64_t>(kind) || handle / kinds > latest) {
        return refuse(kind, handle, ZAV_SHM_BAD_HANDLE, "no such handle was given out");
    }
    return refuse(kind, handle, ZAV_SHM_CLOSED, "is closed");
}

}  // namespace

std::uint64_t add_handle(Kind kind, std::shared_ptr<void> object) {
    const unsigned forks = forks_so_far();
    Table& handles = table();
    const std::lock_guard guard(handles.mutex);
    const std::uint64_t handle = (handles.serial + 1) * kinds + static_cast<std::uint64_t>(kind);
    handles.entries.emplace(handle, Entry{std::move(object), forks});
    ++handles.serial;
    return handle;
}

Found<void> find_handle(Kind kind, std::uint64_t handle) { return look_up(kind, handle, false); }

Found<void> take_handle(Kind kind, std::uint64_t handle) { return look_up(kind, handle, true); }

}  // namespace zav_shm::c_interface
