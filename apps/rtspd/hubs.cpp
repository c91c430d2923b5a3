// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/hubs.h"

#include <sys/stat.h>

#include <vector>

#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::rtspd {

namespace {

// A client that asks, looks at the answer and asks again finds the hub warm.
constexpr std::chrono::seconds kept_unused{10};

}  // namespace

std::shared_ptr<Stream_Hub> Hubs::hub(const Stream_Address& address) {
    const std::lock_guard lock(mutex_);
    Entry& entry = hubs_[address];
    if (!entry.hub) {
        entry.hub = std::make_shared<Stream_Hub>(Stream_Hub::Options{address, folder_, bytes_max_});
    }
    entry.used = std::chrono::steady_clock::now();
    return entry.hub;
}

void Hubs::sweep() {
    const auto now = std::chrono::steady_clock::now();
    std::vector<std::shared_ptr<Stream_Hub>> unused;  // they end without the mutex
    const std::lock_guard lock(mutex_);
    for (auto entry = hubs_.begin(); entry != hubs_.end();) {
        if (entry->second.hub.use_count() > 1) {
            entry->second.used = now;
        }
        if (now - entry->second.used > kept_unused) {
            unused.push_back(std::move(entry->second.hub));
            entry = hubs_.erase(entry);
        } else {
            ++entry;
        }
    }
}

bool Hubs::has_ring(const Stream_Address& address) const {
    const std::string path =
        ring_path(rings_folder(folder_), address.name, address.channel, address.stream);
    struct stat found {};
    return stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode);
}

}  // namespace zav_shm::rtspd
