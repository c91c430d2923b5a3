// SPDX-License-Identifier: Apache-2.0
#include "frame/alarm.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <thread>

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

constexpr auto ring_without_descriptor = 12ms;

// std::chrono::steady_clock counts CLOCK_MONOTONIC. A time of 0 would be no time.
void set_timer(int descriptor, Alarm::Clock::time_point time) {
    const auto since_boot = std::max<std::chrono::nanoseconds>(time.time_since_epoch(), 1ns);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_boot);
    itimerspec once = {};
    once.it_value.tv_sec = static_cast<time_t>(seconds.count());
    once.it_value.tv_nsec = static_cast<long>((since_boot - seconds).count());
    timerfd_settime(descriptor, TFD_TIMER_ABSTIME, &once, nullptr);
}

}  // namespace

Alarm::Alarm() : descriptor_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {}

Alarm::~Alarm() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

void Alarm::set(Clock::time_point time) {
    if (!rings_by(time)) {
        move_to(time);
    }
}

void Alarm::move_to(Clock::time_point time) {
    set_for_ = time;
    if (descriptor_ >= 0) {
        set_timer(descriptor_, time);
    }
}

void Alarm::wait() const {
    std::uint64_t rings = 0;
    if (descriptor_ < 0 ||
        (read(descriptor_, &rings, sizeof rings) != sizeof rings && errno != EINTR)) {
        std::this_thread::sleep_for(ring_without_descriptor);
    }
}

void Alarm::has_rung() {
    if (rings_by(Clock::now())) {
        set_for_.reset();
    }
}

}  // namespace zav_shm
