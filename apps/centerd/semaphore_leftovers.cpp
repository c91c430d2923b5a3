// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/semaphore_leftovers.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "ipc/descriptor.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::centerd {

namespace {

constexpr std::string_view beginning = "sem.";
constexpr std::size_t random_letters = 6;
constexpr std::chrono::seconds least_age{60};  // to make one takes less than a millisecond

bool is_name_of_unfinished(std::string_view name) {
    if (!name.starts_with(beginning) || name.size() != beginning.size() + random_letters) {
        return false;
    }
    name.remove_prefix(beginning.size());
    return std::all_of(name.begin(), name.end(), [](unsigned char c) { return isalnum(c) != 0; });
}

// A clock that was set back makes nothing old.
bool is_old(const struct stat& found) {
    const auto now = std::chrono::system_clock::now();
    return std::chrono::system_clock::from_time_t(found.st_mtim.tv_sec) + least_age < now;
}

// A center makes all without a post. The file is empty at first.
bool is_as_made(int file, off_t length) {
    if (length == 0) {
        return true;
    }
    sem_t semaphore;
    std::memset(&semaphore, 0, sizeof semaphore);
    sem_init(&semaphore, 1, 0);
    std::array<std::byte, sizeof semaphore> fresh{};
    std::memcpy(fresh.data(), &semaphore, sizeof semaphore);
    std::array<std::byte, sizeof semaphore> content{};
    return length == off_t{sizeof semaphore} &&
           pread(file, content.data(), content.size(), 0) == ssize_t{sizeof content} &&
           content == fresh;
}

// A lease on reading is refused while anybody has the file open for writing, or mapped so: a
// semaphore of somebody's own may be called like this.
bool is_in_use(int file) {
    if (fcntl(file, F_SETLEASE, F_RDLCK) != 0) {
        return true;
    }
    fcntl(file, F_SETLEASE, F_UNLCK);
    return false;
}

// The first name of a semaphore that has got its own, too.
bool is_first_name(const struct stat& found, const std::vector<Shared_File>& semaphores) {
    return found.st_nlink > 1 &&
           std::any_of(semaphores.begin(), semaphores.end(), [&](const Shared_File& named) {
               struct stat of_named {};
               return stat(named.path.c_str(), &of_named) == 0 && of_named.st_dev == found.st_dev &&
                      of_named.st_ino == found.st_ino;
           });
}

bool is_leftover(const std::string& path, const std::vector<Shared_File>& semaphores) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat found {};
    if (!file.is_open() || fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode) ||
        found.st_uid != geteuid()) {
        return false;
    }
    return is_first_name(found, semaphores) ||
           (is_old(found) && is_as_made(file.get(), found.st_size) && !is_in_use(file.get()));
}

}  // namespace

void remove_semaphore_leftovers(const std::vector<Shared_File>& semaphores) {
    std::vector<std::string> found;
    std::error_code error;
    std::filesystem::directory_iterator file(shared_memory_folder, error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        if (is_name_of_unfinished(file->path().filename().string())) {
            found.push_back(file->path());
        }
    }
    for (const std::string& path : found) {
        if (is_leftover(path, semaphores)) {
            unlink(path.c_str());
        }
    }
}

}  // namespace zav_shm::centerd
