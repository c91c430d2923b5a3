// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/room.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <string>

#include "apps/centerd/former_segments.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::centerd {

namespace {

// Generous: 400 bytes for each relay and 120 for each consumer is what a long name takes, and
// characters of a name may be written as six. Who reads a ring takes three times as much.
constexpr std::uint64_t status_bytes_per_relay = 512;
constexpr std::uint64_t status_bytes_per_consumer = 512 + 1024;
constexpr std::uint64_t status_bytes_per_name = 256;
constexpr std::uint64_t status_bytes_per_stream_of_a_name = 80;

// Page and status, which exist twice while they are replaced, and the reserve for the status. Lock
// files are empty.
std::uint64_t own_bytes(const Inventory& inventory) {
    return 2 * Inventory::in_pages(1) + 3 * Room::status_bytes(inventory);
}

// Locks and reserve, page and status, of which each exists twice while it is replaced; all three
// folders, and the file under another name that a semaphore is before it gets its own.
constexpr std::uint64_t own_files = 2 + 1 + 4 + 3 + 1;

// Beside a history: its lock and the file of requests to its writer. Of a consumer: card and route,
// of which one exists twice while it is replaced. Each takes a memory page.
constexpr std::uint64_t files_beside_a_ring = 2;
constexpr std::uint64_t files_of_a_reader = 2;

bool exists(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0;
}

std::uint64_t missing_of(const std::vector<Shared_File>& files) {
    return static_cast<std::uint64_t>(std::count_if(
        files.begin(), files.end(), [](const Shared_File& file) { return !exists(file.path); }));
}

std::uint64_t bytes_missing_of(const std::vector<Shared_File>& files) {
    std::uint64_t bytes = 0;
    for (const Shared_File& file : files) {
        bytes += exists(file.path) ? 0 : Inventory::in_pages(file.bytes);
    }
    return bytes;
}

// A publisher makes a new file, beside the one that readers may still have. Their memory is not
// counted twice: publishers are not all started anew at the same time.
void add_rings(Room& room, const Inventory& inventory) {
    const auto readers = static_cast<std::uint64_t>(inventory.consumer_channels);
    const std::uint64_t small_files =
        files_beside_a_ring * inventory.rings.size() + files_of_a_reader * readers;
    room.ring_bytes = bytes_missing_of(inventory.rings) + small_files * Inventory::in_pages(1);
    room.ring_files = missing_of(inventory.rings) + small_files;
}

std::string resource(std::uint64_t available, std::uint64_t needed, const char* what) {
    return "/dev/shm has " + std::to_string(available) + " " + what + ", " +
           std::to_string(needed) + " are needed when all publishers and subscribers come; ";
}

// A file system without a limit of its own says that it has 0 blocks, and 0 files.
void look_at_memory_folder(Room& room) {
    struct statvfs found {};
    if (statvfs(shared_memory_folder, &found) != 0) {
        return;
    }
    room.available_bytes = found.f_blocks == 0
                               ? Room::unlimited
                               : static_cast<std::uint64_t>(found.f_bavail) * found.f_frsize;
    room.available_files = found.f_files == 0 ? Room::unlimited : found.f_favail;
}

}  // namespace

std::uint64_t Room::status_bytes(const Inventory& inventory) {
    const std::uint64_t bytes_of_channels =
        static_cast<std::uint64_t>(inventory.relays) * status_bytes_per_relay +
        static_cast<std::uint64_t>(inventory.consumer_channels) * status_bytes_per_consumer;
    const std::uint64_t bytes_of_a_name =
        status_bytes_per_name +
        static_cast<std::uint64_t>(inventory.stream_count) * status_bytes_per_stream_of_a_name;
    return Inventory::in_pages(1 + bytes_of_channels +
                               static_cast<std::uint64_t>(inventory.name_count) * bytes_of_a_name);
}

Room Room::for_start_of(const Inventory& inventory) {
    const Former_Segments former(inventory);
    Room room;
    room.needed_bytes = Inventory::in_pages(inventory.segments) - former.reused_bytes +
                        Inventory::in_pages(inventory.semaphores) + own_bytes(inventory);
    room.needed_files = inventory.segments.size() - former.of_same_length -
                        former.of_another_length + inventory.semaphores.size() + own_files;
    add_rings(room, inventory);
    look_at_memory_folder(room);
    if (room.available_bytes != unlimited) {
        room.available_bytes += former.freed_bytes;
    }
    return room;
}

Room Room::of_clients(const Inventory& inventory) {
    Room room;
    add_rings(room, inventory);
    look_at_memory_folder(room);
    return room;
}

Room Room::for_the_rest_of(const Inventory& inventory) {
    Room room;
    room.needed_bytes =
        bytes_missing_of(inventory.segments) + bytes_missing_of(inventory.semaphores);
    room.needed_files = missing_of(inventory.segments) + missing_of(inventory.semaphores);
    look_at_memory_folder(room);
    return room;
}

Outcome Room::check() const {
    if (needed_bytes > available_bytes) {
        return failure(
            Exit_Status::no_room,
            "/dev/shm has " + std::to_string(available_bytes) + " bytes available, " +
                std::to_string(needed_bytes) +
                " are needed; enlarge it (mount -o remount,size=... /dev/shm), remove what "
                "is not used there, or configure fewer channels or smaller pages");
    }
    if (needed_files > available_files) {
        return failure(Exit_Status::no_room,
                       "/dev/shm has room for " + std::to_string(available_files) +
                           " more files (inodes), " + std::to_string(needed_files) +
                           " are needed; allow more (mount -o remount,nr_inodes=... /dev/shm), "
                           "remove what is not used there, or configure fewer channels");
    }
    return std::nullopt;
}

std::optional<std::string> Room::warning() const {
    if (check()) {
        return std::nullopt;
    }
    if (needed_bytes + ring_bytes > available_bytes) {
        return resource(available_bytes, needed_bytes + ring_bytes, "bytes available") +
               "enlarge it (mount -o remount,size=... /dev/shm), or configure fewer channels or "
               "smaller histories (history_bytes)";
    }
    if (needed_files + ring_files > available_files) {
        return resource(available_files, needed_files + ring_files, "files (inodes) available") +
               "allow more (mount -o remount,nr_inodes=... /dev/shm), or configure fewer channels";
    }
    return std::nullopt;
}

}  // namespace zav_shm::centerd
