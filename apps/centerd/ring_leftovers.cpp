// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/ring_leftovers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "apps/centerd/guarded_folders.h"
#include "ipc/descriptor.h"
#include "ipc/file_lock.h"

namespace zav_shm::centerd {

namespace {

std::vector<std::string> files_in(const std::string& folder) {
    std::vector<std::string> files;
    std::error_code error;
    std::filesystem::directory_iterator file(folder, error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        files.push_back(file->path());
    }
    return files;
}

// What cannot be looked at counts as in use.
bool is_locked(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file.is_open()) {
        return errno != ENOENT && errno != ELOOP;
    }
    const File_Lock_State state = look_at_file_lock(file.get());
    return state == File_Lock_State::exclusive || state == File_Lock_State::unknown;
}

// The ring that a file lies beside; the file itself when it is one, or a card.
std::string ring_of(const std::string& path) {
    for (const std::string_view ending : {".lock", ".request", ".new"}) {
        if (path.ends_with(ending)) {
            return path.substr(0, path.size() - ending.size());
        }
    }
    return path;
}

// A writer's lock comes first and goes last.
bool is_in_use(const std::string& path) {
    const std::string ring = ring_of(path);
    return is_locked(path) || is_locked(ring) || is_locked(ring + ".lock");
}

}  // namespace

bool remove_unless_used(const std::string& path) {
    return !is_in_use(path) && (unlink(path.c_str()) == 0 || errno == ENOENT);
}

void remove_ring_leftovers(const std::string& folder) {
    for (const std::string& path : files_in(folder)) {
        remove_unless_used(path);
    }
    Guarded_Folders::remove_leftovers(folder);
}

}  // namespace zav_shm::centerd
