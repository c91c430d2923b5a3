// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/access_rights.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "apps/centerd/guarded_folders.h"
#include "apps/centerd/memory_folder.h"
#include "ipc/descriptor.h"
#include "ipc/unix_group.h"

namespace zav_shm::centerd {

namespace {

constexpr mode_t owner_only = 0600;
constexpr mode_t owner_and_group = 0660;
constexpr mode_t folder_owner_bits = 0700;
constexpr mode_t group_read = 0040;
constexpr mode_t others_read = 0004;
constexpr mode_t group_lists = 0050;
constexpr mode_t others_list = 0005;
constexpr mode_t everything_for_group = 0070;
constexpr mode_t everything_for_others = 0007;
constexpr mode_t setgid_and_sticky = 03000;
constexpr mode_t all_mode_bits = 07777;

constexpr const char* remedy_for_leftovers =
    "run as that user or as root, or remove what an earlier center left";

constexpr int folder_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int file_flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

// Root takes over what others made; everybody else keeps what is theirs in any case.
uid_t new_owner() { return geteuid() == 0 ? 0 : static_cast<uid_t>(-1); }

std::string octal(mode_t mode) {
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode));
    return text.data();
}

Outcome check_owner(const std::string& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0 || found.st_uid == geteuid()) {
        return std::nullopt;
    }
    return failure(Exit_Status::system_error,
                   path + " belongs to user " + std::to_string(found.st_uid) + ", not to " +
                       std::to_string(geteuid()) + "; " + remedy_for_leftovers);
}

}  // namespace

Outcome Access_Rights::resolve(const Options& options, Access_Rights& rights) {
    rights.file_.mode = options.mode.value_or(options.group.empty() ? owner_only : owner_and_group);
    rights.file_.group = getegid();
    rights.group_name_ = options.group;
    const auto group = options.group.empty() ? rights.file_.group : group_id(options.group);
    rights.file_.group = group.value_or(rights.file_.group);
    if (!group) {
        return failure(Exit_Status::usage, "--group: there is no group \"" + options.group +
                                               "\"; make it (groupadd), or name another");
    }
    return std::nullopt;
}

mode_t Access_Rights::folder_mode() const {
    return folder_owner_bits | ((file_.mode & group_read) != 0 ? group_lists : 0) |
           ((file_.mode & others_read) != 0 ? others_list : 0);
}

// Whoever is let in makes files there: publishers their rings, subscribers their cards.
mode_t Access_Rights::rings_folder_mode() const {
    if ((file_.mode & group_read) == 0) {
        return folder_owner_bits;
    }
    return setgid_and_sticky | folder_owner_bits | everything_for_group |
           ((file_.mode & others_read) != 0 ? everything_for_others : 0);
}

std::string Access_Rights::text() const {
    return "mode " + octal(file_.mode) + (group_name_.empty() ? "" : ", group " + group_name_);
}

Outcome Access_Rights::prepare_folder(const std::string& path) {
    if (mkdir(path.c_str(), folder_owner_bits) != 0 && errno != EEXIST) {
        return memory_failure("folder " + path, errno, "it has to be possible to make it");
    }
    const Descriptor folder(open(path.c_str(), folder_flags));
    if (!folder.is_open() || fchown(folder.get(), new_owner(), static_cast<gid_t>(-1)) != 0) {
        return memory_failure("folder " + path, errno,
                              "it has to be a folder of the own user: remove what is there");
    }
    return std::nullopt;
}

Outcome Access_Rights::check_leftovers(const Inventory& inventory) {
    if (geteuid() == 0) {
        return std::nullopt;
    }
    for (const std::string& folder :
         {inventory.segment_folder, inventory.semaphore_folder, inventory.rings_folder}) {
        if (Outcome failed = check_owner(folder)) {
            return failed;
        }
    }
    for (const auto* files : {&inventory.segments, &inventory.semaphores}) {
        for (const Shared_File& file : *files) {
            if (Outcome failed = check_owner(file.path)) {
                return failed;
            }
        }
    }
    return std::nullopt;
}

Outcome Access_Rights::apply(const Inventory& inventory) const {
    for (const Shared_File& segment : inventory.segments) {
        if (Outcome failed = apply_to_file("segment ", segment)) {
            return failed;
        }
    }
    for (const Shared_File& semaphore : inventory.semaphores) {
        if (Outcome failed = apply_to_file("semaphore ", semaphore)) {
            return failed;
        }
    }
    if (Outcome failed = make_rings_folder(inventory)) {
        return failed;
    }
    // The folders last: until then nobody else gets in.
    for (const std::string& folder : {inventory.semaphore_folder, inventory.segment_folder}) {
        if (Outcome failed = apply_to_folder(folder, folder_mode())) {
            return failed;
        }
    }
    return std::nullopt;
}

Outcome Access_Rights::make_rings_folder(const Inventory& inventory) const {
    Outcome failed = prepare_folder(inventory.rings_folder);
    failed = failed ? failed : apply_to_folder(inventory.rings_folder, rings_folder_mode());
    return failed ? failed : Guarded_Folders(inventory, file_).make();
}

// The kernel leaves the setgid bit out, without an error, for who is neither in the group nor
// privileged. Clients' files would then be in their own groups, and nobody else could read them.
Outcome Access_Rights::apply_to_folder(const std::string& path, mode_t mode) const {
    const Descriptor folder(open(path.c_str(), folder_flags));
    struct stat made {};
    if (!folder.is_open() || fchown(folder.get(), new_owner(), file_.group) != 0 ||
        fchmod(folder.get(), mode) != 0 || fstat(folder.get(), &made) != 0) {
        return memory_failure("folder " + path + ", mode " + octal(mode) +
                                  (group_name_.empty() ? "" : ", group " + group_name_),
                              errno, "the user has to be in that group, or root");
    }
    if ((made.st_mode & all_mode_bits) != mode) {
        return failure(Exit_Status::system_error,
                       "folder " + path + " has mode " + octal(made.st_mode & all_mode_bits) +
                           ", not " + octal(mode) +
                           "; the user has to be in that group, or to have CAP_FSETID");
    }
    return std::nullopt;
}

Outcome Access_Rights::apply_to_file(const char* kind, const Shared_File& made) const {
    const Descriptor file(open(made.path.c_str(), file_flags));
    struct stat found {};
    if (!file.is_open() || fstat(file.get(), &found) != 0) {
        return memory_failure(kind + made.path, errno, "the center could not make it");
    }
    if (!S_ISREG(found.st_mode) || static_cast<std::uint64_t>(found.st_size) != made.bytes) {
        return failure(Exit_Status::system_error,
                       kind + made.path + " has " + std::to_string(found.st_size) + " bytes, not " +
                           std::to_string(made.bytes) +
                           "; the center could not make it: remove what is there");
    }
    const bool is_kept = made.group && (file_.mode & group_read) != 0;
    const gid_t group = is_kept ? *made.group : file_.group;
    const mode_t others = made.others_read ? others_read : 0;
    const mode_t mode = is_kept ? (file_.mode & owner_and_group) | others : file_.mode;
    if (is_kept && (fchown(file.get(), new_owner(), group) != 0 || fchmod(file.get(), mode) != 0)) {
        return memory_failure(kind + made.path + ", group " + group_title(group), errno,
                              "the user of the daemon has to be in that group, or root");
    }
    if (!is_kept &&
        (fchown(file.get(), new_owner(), group) != 0 || fchmod(file.get(), mode) != 0)) {
        return memory_failure(kind + made.path + ", " + text(), errno,
                              "the user has to be in that group, or root");
    }
    return std::nullopt;
}

}  // namespace zav_shm::centerd
