// SPDX-License-Identifier: Apache-2.0
#include "stream/relay_thread.h"

#include <cerrno>
#include <csignal>

namespace zav_shm {

struct Relay_Thread::Start {
    std::shared_ptr<State> state;
    Routine routine;
    void* argument;
};

// Runs on the relay thread's way out, by return and by cancellation alike. A routine that did not
// detach its thread would leave it behind for a join that nobody makes.
struct Relay_Thread::Leaving {
    std::shared_ptr<State> state;

    explicit Leaving(std::shared_ptr<State> shared) : state(std::move(shared)) {}
    Leaving(const Leaving&) = delete;
    Leaving& operator=(const Leaving&) = delete;

    ~Leaving() {
        detach_if_joinable();
        // Notified under the mutex: with it released first, the waiter could go on and destroy
        // what a sanitizer still sees in use here.
        const Guard guard(state->mutex);
        state->running = false;
        state->changed.notify_all();
    }

    static void detach_if_joinable() {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
            return;
        }
        int detached = PTHREAD_CREATE_JOINABLE;
        pthread_attr_getdetachstate(&attributes, &detached);
        pthread_attr_destroy(&attributes);
        if (detached == PTHREAD_CREATE_JOINABLE) {
            pthread_detach(pthread_self());
        }
    }
};

void* Relay_Thread::main(void* start) {
    const std::unique_ptr<Start> begin(static_cast<Start*>(start));
    const Leaving leaving(begin->state);
    return begin->routine(begin->argument);
}

int Relay_Thread::start(Routine routine, void* argument) {
    const Guard guard(state_->mutex);
    if (state_->running) {
        return EBUSY;
    }
    auto begin = std::make_unique<Start>(Start{state_, routine, argument});
    const int error = pthread_create(&id_, nullptr, main, begin.get());
    if (error == 0) {
        begin.release();  // the new thread owns it
        state_->running = true;
        state_->woken = false;
    }
    return error;
}

bool Relay_Thread::wait_until_left(std::chrono::milliseconds limit) {
    Waiting_Guard guard(state_->mutex);
    return state_->changed.wait_for(
        guard.lock(), limit, [this]() ZAV_SHM_REQUIRES(state_->mutex) { return !state_->running; });
}

void Relay_Thread::cancel() {
    Waiting_Guard guard(state_->mutex);
    if (state_->running) {
        pthread_cancel(id_);  // valid: it needs the mutex to stop running
        state_->changed.wait(guard.lock(),
                             [this]() ZAV_SHM_REQUIRES(state_->mutex) { return !state_->running; });
    }
}

// Under the mutex: a running thread needs it to stop running, so `id_` is valid.
bool Relay_Thread::signal(int number) {
    const Guard guard(state_->mutex);
    return state_->running && pthread_kill(id_, number) == 0;
}

void Relay_Thread::sleep(std::chrono::milliseconds time) {
    Waiting_Guard guard(state_->mutex);
    state_->changed.wait_for(guard.lock(), time,
                             [this]() ZAV_SHM_REQUIRES(state_->mutex) { return state_->woken; });
    state_->woken = false;
}

void Relay_Thread::wake() {
    const Guard guard(state_->mutex);
    state_->woken = true;
    state_->changed.notify_all();
}

}  // namespace zav_shm
