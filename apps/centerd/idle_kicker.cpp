// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/idle_kicker.h"

#include <pthread.h>

#include "apps/centerd/signals.h"

namespace zav_shm::centerd {

namespace {

constexpr std::chrono::milliseconds interrupt_again{20};

}  // namespace

Idle_Kicker::Idle_Kicker(ZAV_SHM_CENTER& center, std::chrono::milliseconds interval)
    : center_(center), interval_(interval), thread_([this] { run(); }) {}

Idle_Kicker::~Idle_Kicker() {
    {
        std::unique_lock guard(lock_);
        stopping_ = true;
        changed_.notify_all();
        while (!changed_.wait_for(guard, interrupt_again, [this] { return left_; })) {
            center_.manager()->interrupt_waits(interrupting_signal);
        }
    }
    thread_.join();
}

void Idle_Kicker::run() {
    pthread_setname_np(pthread_self(), "zav_kick");
    std::unique_lock guard(lock_);
    while (!changed_.wait_for(guard, interval_, [this] { return stopping_; })) {
        guard.unlock();
        center_.kick_idle_client();
        guard.lock();
    }
    left_ = true;
    changed_.notify_all();
}

}  // namespace zav_shm::centerd
