// SPDX-License-Identifier: Apache-2.0
#include "ipc/name_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

constexpr std::int64_t sleep_without_descriptors_ns = 50'000'000;
constexpr std::uint32_t folder_gone = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t watched_for = IN_CREATE | IN_MOVED_TO | folder_gone | IN_ONLYDIR;

std::string folder_above(const std::string& folder) {
    const std::size_t slash = folder.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : folder.substr(0, slash);
}

}  // namespace

void Name_Watch::begin(const std::string& folder) {
    if (names_ >= 0 && folder_ == folder) {
        return;
    }
    if (names_ < 0) {
        names_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        const Guard guard(mutex_);
        wakes_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
    for (std::string watched = folder; names_ >= 0; watched = folder_above(watched)) {
        if (watched == folder_) {
            return;
        }
        if (const int watch = inotify_add_watch(names_, watched.c_str(), watched_for); watch >= 0) {
            if (watch != watch_) {
                forget_folder();  // one above it, which it was waited for in
            }
            watch_ = watch;
            folder_ = watched;
            return;
        }
        if (watched == "/") {
            return;
        }
    }
}

void Name_Watch::forget_folder() {
    if (watch_ >= 0) {
        inotify_rm_watch(names_, std::exchange(watch_, -1));
    }
    folder_.clear();
}

void Name_Watch::end() {
    forget_folder();
    if (names_ >= 0) {
        close(std::exchange(names_, -1));
    }
    const Guard guard(mutex_);
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
    if (waited[0].revents != 0) {
        take_events();
    }
    if (waited[1].revents != 0) {
        eventfd_t wakes = 0;
        eventfd_read(wakes_, &wakes);
    }
}

// The names are of no interest. A folder that was removed or moved may come again as another one.
void Name_Watch::take_events() {
    alignas(inotify_event) std::array<std::byte, 4096> buffer{};
    for (;;) {
        const ssize_t got = read(names_, buffer.data(), buffer.size());
        if (got <= 0) {
            return;
        }
        inotify_event event{};
        for (std::size_t at = 0; at < static_cast<std::size_t>(got);
             at += sizeof event + event.len) {
            std::memcpy(&event, buffer.data() + at, sizeof event);
            if (event.wd == watch_ && (event.mask & (folder_gone | IN_IGNORED)) != 0) {
                forget_folder();
            }
        }
    }
}

void Name_Watch::wake() {
    const Guard guard(mutex_);
    if (wakes_ >= 0) {
        eventfd_write(wakes_, 1);
    }
}

}  // namespace zav_shm
