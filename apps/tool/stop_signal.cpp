// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/stop_signal.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

// Longer sleeps are cut into pieces of this length, which fits every time_t.
constexpr std::chrono::hours sleep_max{1};

timespec until(Stop_Signal::Clock::time_point end) {
    using std::chrono::nanoseconds;
    const auto left =
        std::clamp<nanoseconds>(end - Stop_Signal::Clock::now(), nanoseconds(0), sleep_max);
    timespec time{};
    time.tv_sec = static_cast<time_t>(left.count() / ns_per_second);
    time.tv_nsec = static_cast<long>(left.count() % ns_per_second);
    return time;
}

}  // namespace

Stop_Signal::Stop_Signal(Hangup hangup) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (hangup == Hangup::ends) {
        sigaddset(&set, SIGHUP);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    descriptor_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

Stop_Signal::~Stop_Signal() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

bool Stop_Signal::requested() const { return wait_until({}); }

bool Stop_Signal::wait_until(Clock::time_point end) const {
    for (;;) {
        pollfd waited{descriptor_, POLLIN, 0};
        const timespec time = until(end);
        const int ready = ppoll(&waited, 1, &time, nullptr);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 && Clock::now() >= end) {
            return false;
        }
    }
}

bool Stop_Signal::wait_for(int descriptor, short events, Clock::time_point end) const {
    for (;;) {
        pollfd waited[] = {{descriptor, events, 0}, {descriptor_, POLLIN, 0}};
        const timespec time = until(end);
        const int ready = ppoll(waited, 2, &time, nullptr);
        if (ready > 0) {
            return waited[0].revents != 0;
        }
        if (ready == 0 && Clock::now() >= end) {
            return false;
        }
    }
}

}  // namespace zav_shm::tool
