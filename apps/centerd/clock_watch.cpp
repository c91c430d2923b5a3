// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/clock_watch.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace zav_shm::centerd {

namespace {

// A timer has to be running to be cancelled. One that expires is only armed again.
constexpr time_t far_away_s = 365L * 24 * 60 * 60;

}  // namespace

Clock_Watch::Clock_Watch() : timer_(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC)) {
    arm();
}

bool Clock_Watch::was_set() {
    std::uint64_t expirations = 0;
    const bool cancelled =
        read(timer_.get(), &expirations, sizeof expirations) < 0 && errno == ECANCELED;
    arm();
    return cancelled;
}

void Clock_Watch::arm() const {
    itimerspec expiry{};
    clock_gettime(CLOCK_REALTIME, &expiry.it_value);
    expiry.it_value.tv_sec += far_away_s;
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &expiry, nullptr);
}

}  // namespace zav_shm::centerd
