// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/room.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>

#include "ipc/shared_memory_folder.h"

namespace zav_shm::centerd {

namespace {

constexpr std::uint64_t stat_block_bytes = 512;  // the unit of st_blocks, whatever the file system

// Generous: 400 bytes for each relay and 120 for each consumer is what a long name takes.
constexpr std::uint64_t status_bytes_per_channel = 512;

std::uint64_t present_bytes(const Shared_File& file) {
    struct stat found {};
    if (lstat(file.path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) {
        return 0;
    }
    return std::min(static_cast<std::uint64_t>(found.st_blocks) * stat_block_bytes,
                    Inventory::in_pages(file.bytes));
}

// Page, status and lock; the first two exist twice while they are replaced.
std::uint64_t own_bytes(const Inventory& inventory) {
    const auto channels = static_cast<std::uint64_t>(inventory.relays) +
                          static_cast<std::uint64_t>(inventory.consumer_channels);
    return 2 *
           (Inventory::in_pages(1) + Inventory::in_pages(1 + channels * status_bytes_per_channel));
}

// A file system without a limit of its own says that it has 0 blocks.
std::uint64_t available_bytes_in(const char* folder) {
    struct statvfs found {};
    if (statvfs(folder, &found) != 0) {
        return 0;
    }
    return found.f_blocks == 0 ? Room::unlimited
                               : static_cast<std::uint64_t>(found.f_bavail) * found.f_frsize;
}

}  // namespace

Room Room::for_start_of(const Inventory& inventory) {
    Room room;
    room.needed_bytes = Inventory::in_pages(inventory.segments) +
                        Inventory::in_pages(inventory.semaphores) + own_bytes(inventory);
    for (const Shared_File& segment : inventory.segments) {
        room.needed_bytes -= present_bytes(segment);
    }
    room.available_bytes = available_bytes_in(shared_memory_folder);
    return room;
}

Outcome Room::check() const {
    if (needed_bytes <= available_bytes) {
        return std::nullopt;
    }
    return failure(Exit_Status::no_room,
                   "/dev/shm has " + std::to_string(available_bytes) + " bytes available, " +
                       std::to_string(needed_bytes) +
                       " are needed; enlarge it (mount -o remount,size=... /dev/shm), remove what "
                       "is not used there, or configure fewer channels or smaller pages");
}

}  // namespace zav_shm::centerd
