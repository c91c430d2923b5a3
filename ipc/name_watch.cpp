// SPDX-License-Identifier: Apache-2.0
#include "ipc/name_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

constexpr std::int64_t ns_per_second = 1'000'000'000;
constexpr std::int64_t sleep_without_descriptors_ns = 50'000'000;
constexpr std::uint32_t names_given = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;

void empty(int descriptor) {
    std::array<char, 4096> buffer{};
    while (read(descriptor, buffer.data(), buffer.size()) > 0) {
    }
}

std::string folder_above(const std::string& folder) {
    const std::size_t slash = folder.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : folder.substr(0, slash);
}

}  // namespace

// Once the folder itself is there, what is watched above it is of no use any more.
void Name_Watch::begin(const std::string& folder) {
    if (names_ >= 0 && folder_ == folder) {
        return;
    }
    if (names_ < 0) {
        names_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        const std::lock_guard guard(mutex_);
        wakes_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
    for (std::string watched = folder; names_ >= 0; watched = folder_above(watched)) {
        if (watched == folder_) {
            return;
        }
        if (inotify_add_watch(names_, watched.c_str(), names_given) >= 0) {
            folder_ = watched;
            return;
        }
        if (watched == "/") {
            return;
        }
    }
}

void Name_Watch::end() {
    folder_.clear();
    if (names_ >= 0) {
        close(std::exchange(names_, -1));
    }
    const std::lock_guard guard(mutex_);
    if (wakes_ >= 0) {
        close(std::exchange(wakes_, -1));
    }
}

void Name_Watch::sleep(std::int64_t deadline_ns) {
    std::int64_t left = std::max<std::int64_t>(deadline_ns - monotonic_ns(), 0);
    if (names_ < 0 || wakes_ < 0 || folder_.empty()) {
        left = std::min(left, sleep_without_descriptors_ns);
    }
    std::array<pollfd, 2> waited{{{names_, POLLIN, 0}, {wakes_, POLLIN, 0}}};
    timespec time{};
    time.tv_sec = static_cast<time_t>(left / ns_per_second);
    time.tv_nsec = static_cast<long>(left % ns_per_second);
    ppoll(waited.data(), waited.size(), &time, nullptr);
    for (const pollfd& one : waited) {
        if (one.revents != 0) {
            empty(one.fd);
        }
    }
}

void Name_Watch::wake() {
    const std::lock_guard guard(mutex_);
    if (wakes_ >= 0) {
        eventfd_write(wakes_, 1);
    }
}

}  // namespace zav_shm
