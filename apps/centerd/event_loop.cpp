// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/event_loop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace zav_shm::centerd {

namespace {

timespec as_timespec(std::chrono::milliseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    timespec converted{};
    converted.tv_sec = static_cast<time_t>(seconds.count());
    converted.tv_nsec = static_cast<long>(std::chrono::nanoseconds(time - seconds).count());
    return converted;
}

}  // namespace

Event_Loop::Event_Loop() : poll_(epoll_create1(EPOLL_CLOEXEC)) {}

void Event_Loop::on_readable(int descriptor, Action action) {
    if (descriptor < 0) {
        return;
    }
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = descriptor;
    if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, descriptor, &wanted) != 0) {
        failed_ = true;
        return;
    }
    actions_[descriptor] = std::make_shared<Action>(std::move(action));
}

void Event_Loop::every(std::chrono::milliseconds period, const Action& action) {
    add_timer(period, [action](int) { action(); });
}

void Event_Loop::repeat(int times, std::chrono::milliseconds period, const Action& action) {
    add_timer(period, [this, action, left = times](int timer) mutable {
        action();
        if (--left == 0) {
            actions_.erase(timer);
            timers_.erase(timer);  // closing takes it out of the poll
        }
    });
}

void Event_Loop::add_timer(std::chrono::milliseconds period, std::function<void(int)> action) {
    Descriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    const int number = timer.get();
    itimerspec expiry{};
    expiry.it_interval = as_timespec(period);
    expiry.it_value = expiry.it_interval;
    if (!timer.is_open() || timerfd_settime(number, 0, &expiry, nullptr) != 0) {
        failed_ = true;
        return;
    }
    on_readable(number, [number, action = std::move(action)]() mutable {
        std::uint64_t expirations = 0;
        if (read(number, &expirations, sizeof expirations) > 0) {
            action(number);
        }
    });
    timers_[number] = std::move(timer);
}

// Shared, since an action may end its own timer.
void Event_Loop::run() {
    while (!ended_) {
        epoll_event event{};
        if (epoll_wait(poll_.get(), &event, 1, -1) == 1) {
            const std::shared_ptr<Action> action = actions_.at(event.data.fd);
            (*action)();
        }
    }
}

}  // namespace zav_shm::centerd
