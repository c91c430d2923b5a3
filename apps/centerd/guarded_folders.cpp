// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/guarded_folders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "apps/centerd/memory_folder.h"
#include "apps/centerd/ring_leftovers.h"
#include "ipc/descriptor.h"
#include "ipc/random_epoch.h"
#include "ipc/ring_place.h"
#include "ipc/unix_group.h"

namespace zav_shm::centerd {

namespace {

namespace fs = std::filesystem;

constexpr mode_t group_bits = 0060;
constexpr mode_t group_read = 0040;
constexpr mode_t others_read = 0004;
constexpr mode_t own_folder = 0700;
constexpr mode_t own_file = 0600;
constexpr mode_t group_makes = 03775;  // setgid and sticky; others may look for names
constexpr mode_t everybody_makes = 03777;
constexpr mode_t all_mode_bits = 07777;
constexpr int attempts_max = 10;  // somebody may make a trap again and again, but not so fast

constexpr const char* remedy = "the user of the daemon has to be in that group, or root";

template <class Action>
void for_each_in(const std::string& folder, const Action& action) {
    std::error_code error;
    fs::directory_iterator file(folder, error);
    for (; !error && file != fs::directory_iterator(); file.increment(error)) {
        action(file->path().filename().string(), file->path().string());
    }
}

bool is_own_folder(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == geteuid();
}

bool is_readers_file(const std::string& name) { return name.ends_with(".readers"); }

bool is_of_stream(const std::string& name, int stream) {
    const std::string ring = name.substr(0, name.find('.', name.rfind('_')));
    return ring.ends_with("_" + std::to_string(stream));
}

std::string rights_text(mode_t mode, gid_t group) {
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode));
    return std::string(", mode ") + text.data() + ", group " + group_title(group);
}

// What is not ours is no folder of ours: a client was faster. Its contents may be beyond us, its
// name is not, since the folder that it lies in is ours.
void displace(const std::string& path) {
    const std::string aside = path + "." + std::to_string(random_epoch()) + ".gone";
    if (rename(path.c_str(), aside.c_str()) == 0) {
        std::error_code stays;
        fs::remove_all(aside, stays);
    }
}

Outcome make_own_folder(const std::string& path) {
    for (int i = 0; i < attempts_max; ++i) {
        if (mkdir(path.c_str(), own_folder) == 0 || (errno == EEXIST && is_own_folder(path))) {
            return std::nullopt;
        }
        if (errno != EEXIST) {
            break;
        }
        displace(path);
    }
    return memory_failure("folder " + path, errno, "remove what is there");
}

// The rings of before, and what lies beside them; what is no ring stays.
void remove_rings_of(const std::string& rings, const std::string& producer) {
    for_each_in(rings, [&](const std::string& name, const std::string& path) {
        const std::string front = producer + "_";
        const std::string rest = name.starts_with(front) ? name.substr(front.size()) : "";
        const std::size_t digits = rest.find_first_not_of("0123456789_");
        const std::string ending = digits == std::string::npos ? "" : rest.substr(digits);
        const bool is_ring =
            std::count(rest.begin(), rest.end(), '_') == 1 && digits != 0 &&
            (ending.empty() || ending == ".lock" || ending == ".request" || ending == ".new");
        if (is_ring) {
            unlink(path.c_str());
        }
    });
}

void remove_all_in(const std::string& folder) {
    for_each_in(folder, [](const std::string&, const std::string& path) {
        std::error_code stays;
        fs::remove_all(path, stays);
    });
}

}  // namespace

// Who is no client gets no further than the rings' folder, whatever group he is in.
Guarded_Folders::Rights Guarded_Folders::rights_of(const Guarded_Folder& folder) const {
    if ((access_.mode & group_read) == 0) {
        return {own_folder, getegid()};
    }
    const bool is_everybodys = !folder.producers && (access_.mode & others_read) != 0;
    return {is_everybodys ? everybody_makes : group_makes,
            folder.producers.value_or(access_.group)};
}

Guarded_Folders::Rights Guarded_Folders::rights_of(const Readers_File& file) const {
    if ((access_.mode & group_read) == 0) {
        return {own_file, getegid()};
    }
    const mode_t others = file.readers ? 0 : access_.mode & others_read;
    return {own_file | group_read | others, file.readers.value_or(access_.group)};
}

Outcome Guarded_Folders::make() const {
    for (const Guarded_Folder& folder : inventory_.guarded) {
        if (Outcome failed = make(folder)) {
            return failed;
        }
    }
    remove_others();
    return std::nullopt;
}

bool Guarded_Folders::are_there() const {
    return std::all_of(inventory_.guarded.begin(), inventory_.guarded.end(),
                       [](const Guarded_Folder& folder) {
                           return is_own_folder(folder.path) &&
                                  std::all_of(folder.readers.begin(), folder.readers.end(),
                                              [](const Readers_File& file) {
                                                  return access(file.path.c_str(), F_OK) == 0;
                                              });
                       });
}

Outcome Guarded_Folders::make(const Guarded_Folder& folder) const {
    if (Outcome failed = make_own_folder(folder.path)) {
        return failed;
    }
    const Rights rights = rights_of(folder);
    const Descriptor opened(
        open(folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (!opened.is_open() || fstat(opened.get(), &found) != 0) {
        return memory_failure("folder " + folder.path, errno, "remove what is there");
    }
    const bool is_as_before =
        found.st_gid == rights.group && (found.st_mode & all_mode_bits) == rights.mode;
    // What others made while it was theirs is not to be found by those whose it is now.
    if (!is_as_before) {
        fchmod(opened.get(), own_folder);
        remove_all_in(folder.path);
    }
    for (const Readers_File& file : folder.readers) {
        if (Outcome failed = make(file)) {
            return failed;
        }
    }
    if (!is_as_before && (fchown(opened.get(), static_cast<uid_t>(-1), rights.group) != 0 ||
                          fchmod(opened.get(), rights.mode) != 0)) {
        return memory_failure("folder " + folder.path + rights_text(rights.mode, rights.group),
                              errno, remedy);
    }
    if (fstat(opened.get(), &found) != 0 || (found.st_mode & all_mode_bits) != rights.mode) {
        return failure(Exit_Status::system_error,
                       "folder " + folder.path + " has not got its setgid bit" +
                           rights_text(rights.mode, rights.group) +
                           "; the user has to be in that group, or to have CAP_FSETID");
    }
    remove_rings_of(inventory_.rings_folder, folder.producer);
    return std::nullopt;
}

// Only here are those files made: nobody can lead to anything by that name but the own user.
Outcome Guarded_Folders::make(const Readers_File& file) const {
    const Rights rights = rights_of(file);
    struct stat found {};
    const bool is_there = lstat(file.path.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
                          found.st_uid == geteuid();
    const bool is_as_before =
        is_there && found.st_gid == rights.group && (found.st_mode & all_mode_bits) == rights.mode;
    if (is_as_before) {
        return std::nullopt;
    }
    std::error_code stays;
    fs::remove_all(file.path, stays);
    const Descriptor made(
        open(file.path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, own_file));
    if (!made.is_open() || fchown(made.get(), static_cast<uid_t>(-1), rights.group) != 0 ||
        fchmod(made.get(), rights.mode) != 0) {
        const int error = errno;
        unlink(file.path.c_str());
        return memory_failure(file.path + rights_text(rights.mode, rights.group), error, remedy);
    }
    const std::string folder = fs::path(file.path).parent_path();
    for_each_in(folder, [&](const std::string& name, const std::string& path) {
        if (!is_readers_file(name) && !name.ends_with(".lock") && is_of_stream(name, file.stream)) {
            unlink(path.c_str());
        }
    });
    return std::nullopt;
}

// Of another configuration.
void Guarded_Folders::remove_others() const {
    for_each_in(inventory_.rings_folder, [this](const std::string& name, const std::string& path) {
        const bool is_needed =
            std::any_of(inventory_.guarded.begin(), inventory_.guarded.end(),
                        [&](const Guarded_Folder& folder) { return folder.path == path; });
        if (name.ends_with(".d") && !is_needed && is_own_folder(path)) {
            std::error_code stays;
            fs::remove_all(path, stays);
        }
    });
}

// As long as a ring is used, its folder is what says to whom it belongs.
void Guarded_Folders::remove_leftovers(const std::string& rings) {
    for_each_in(rings, [](const std::string& name, const std::string& path) {
        if (!name.ends_with(".d") || !is_own_folder(path)) {
            return;
        }
        bool is_used = false;
        for_each_in(path, [&](const std::string& file, const std::string& file_path) {
            is_used = (!is_readers_file(file) && !remove_unless_used(file_path)) || is_used;
        });
        if (!is_used) {
            std::error_code stays;
            fs::remove_all(path, stays);
        }
    });
}

}  // namespace zav_shm::centerd
