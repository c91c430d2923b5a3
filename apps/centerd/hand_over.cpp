// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/hand_over.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <vector>

#include "apps/centerd/center_lock.h"

namespace zav_shm::centerd {

namespace {

constexpr std::size_t user_entry_bytes_max = std::size_t{1024} * 1024;

std::optional<uid_t> find_user(const std::string& name) {
    for (std::size_t bytes = 1024; bytes <= user_entry_bytes_max; bytes *= 2) {
        std::vector<char> buffer(bytes);
        passwd entry{};
        passwd* found = nullptr;
        const int error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (error != ERANGE) {
            return found == nullptr ? std::nullopt : std::optional(found->pw_uid);
        }
    }
    return std::nullopt;
}

Outcome find_holder(const Inventory& inventory, const Control_Queues& queues) {
    Outcome held =
        Center_Lock(inventory.lock, "the folder " + inventory.segment_folder).find_holder();
    return held ? held
                : Center_Lock(queues.lock_path(), "the pair of " + queues.text()).find_holder();
}

std::vector<std::string> paths_of(const Inventory& inventory, const Control_Queues& queues) {
    std::vector<std::string> paths{inventory.segment_folder, inventory.semaphore_folder,
                                   inventory.rings_folder,   inventory.lock,
                                   queues.lock_path(),       inventory.page,
                                   inventory.status};
    for (const auto* files : {&inventory.segments, &inventory.semaphores}) {
        for (const Shared_File& file : *files) {
            paths.push_back(file.path);
        }
    }
    for (const Guarded_Folder& folder : inventory.guarded) {
        paths.push_back(folder.path);
        for (const Readers_File& file : folder.readers) {
            paths.push_back(file.path);
        }
    }
    return paths;
}

}  // namespace

Outcome hand_over(const std::string& user, const Inventory& inventory,
                  const Control_Queues& queues) {
    const auto owner = find_user(user);
    if (!owner) {
        return failure(Exit_Status::usage, "--hand-over: there is no user \"" + user +
                                               "\"; make it (systemd-sysusers, useradd -r), or "
                                               "name another");
    }
    if (Outcome held = find_holder(inventory, queues)) {
        return held;
    }
    for (const std::string& path : paths_of(inventory, queues)) {
        if (fchownat(AT_FDCWD, path.c_str(), *owner, static_cast<gid_t>(-1), AT_SYMLINK_NOFOLLOW) !=
                0 &&
            errno != ENOENT) {
            return system_failure("giving " + path + " to " + user, errno, "run as root");
        }
    }
    return queues.give_to(*owner);
}

}  // namespace zav_shm::centerd
