// SPDX-License-Identifier: Apache-2.0
//
// One cycle passes one frame's posts:
//
//   1. ask each writer's consumer for its presence (5 ms each); who answers is live
//   2. nobody live: collect the late "read done" posts of consumers that left in mid-frame,
//      and free the producer's slot for each
//   3. tell the producer that somebody is present, and wait for a frame (30 ms)
//   4. tell every live consumer that it is ready, then wait for each to have read it (20 ms)
//   5. tell the producer that the slot is free
//
// Invariants: the list changes only between cycles, since the cycle holds `lock` through its
// waits; a writer that delete_distributor() has returned for is not used any more.

#include "stream/relay.h"

#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <ostream>

#include "stream/relay_thread.h"

namespace {

constexpr long presence_wait_ms = 5;
constexpr long frame_wait_ms = 30;
constexpr long read_wait_ms = 20;
constexpr long late_read_wait_ms = 30;
constexpr std::chrono::milliseconds idle_sleep{50};

// The thread of a relay that nobody needs sleeps until there is a consumer. Once in a while it
// looks all the same.
constexpr std::chrono::milliseconds unused_sleep{1000};

// No single wait of the cycle is longer, unless the clock was set back.
constexpr std::chrono::milliseconds stop_grace{200};

}  // namespace

// ---- life ----

SHM_Stream_Transmission::SHM_Stream_Transmission() : SHM_Stream_Transmission(nullptr) {}

SHM_Stream_Transmission::SHM_Stream_Transmission(ZAV_SHM_Stream_Transmission_Receiver* new_source)
    : source(new_source),
      lock(std::make_unique<zav_shm::Ticket_Mutex>()),
      thread(std::make_unique<zav_shm::Relay_Thread>()) {}

SHM_Stream_Transmission::~SHM_Stream_Transmission() { stop(); }

int SHM_Stream_Transmission::run(void* (*start_routine)(void*)) {
    if (start_routine == nullptr) {
        return EINVAL;
    }
    runs_own_body_ = start_routine == fun_transmission_stream;
    return thread->start(start_routine, this);
}

void SHM_Stream_Transmission::request_stop() {
    stopping_ = true;
    thread->wake();
}

// The own body looks at `stopping_` after every wait, so it leaves by itself; cancelling is for
// the rest.
void SHM_Stream_Transmission::stop() {
    request_stop();
    if (!thread->wait_until_left(runs_own_body_ ? stop_grace : std::chrono::milliseconds{0})) {
        thread->cancel();
    }
}

bool SHM_Stream_Transmission::interrupt_wait(int signal) const { return thread->signal(signal); }

void* fun_transmission_stream(void* arg) {
    if (arg == nullptr) {
        return nullptr;
    }
    pthread_detach(pthread_self());
    pthread_setname_np(pthread_self(), "zav_relay");
    auto* const relay = static_cast<SHM_Stream_Transmission*>(arg);
    while (!relay->stop_requested()) {
        if (relay->get_distributor_num() == 0) {
            relay->wait_for_consumer();
        } else {
            relay->transmission_frame();
        }
    }
    return nullptr;
}

void SHM_Stream_Transmission::wait_for_consumer() { thread->sleep(unused_sleep); }

// ---- the relay cycle ----

int SHM_Stream_Transmission::transmission_frame() {
    // A body that does not look at `stopping_` comes again and again, and a cycle waits nowhere any
    // more: without this there would be no place left at which it can be cancelled.
    if (stopping_) {
        pthread_testcancel();
    }
    {
        const zav_shm::Guard guard(*lock);
        if (!distributor_list.empty()) {
            return relay_one_frame();
        }
    }
    thread->sleep(idle_sleep);
    return 0;
}

int SHM_Stream_Transmission::relay_one_frame() {
    counters_.cycles.add_one();
    find_live_writers();
    counters_.live = static_cast<int>(live_.size());
    if (live_.empty()) {
        collect_late_reads();
        return 0;
    }
    if (source == nullptr || stopping_) {
        return 0;
    }
    source->post_distributor_receiver_exist();
    if (!source->time_wait_distributor_write(frame_wait_ms)) {
        counters_.frame_timeouts.add_one();
        return 1;
    }
    counters_.frames.add_one();
    for (Writer* const writer : live_) {
        writer->post_receiver_read();
        writer->count_frame();
    }
    for (Writer* const writer : live_) {
        if (stopping_) {
            return 0;
        }
        if (!writer->time_wait_receiver_read(read_wait_ms)) {
            counters_.read_timeouts.add_one();
        }
    }
    source->post_distributor_write();
    return 0;
}

void SHM_Stream_Transmission::find_live_writers() {
    live_.clear();
    for (Writer* const writer : distributor_list) {
        if (stopping_) {
            return;
        }
        if (writer->time_wait_receiver_exist(presence_wait_ms)) {
            live_.push_back(writer);
        } else {
            counters_.presence_timeouts.add_one();
        }
    }
}

void SHM_Stream_Transmission::collect_late_reads() {
    for (Writer* const writer : distributor_list) {
        if (stopping_) {
            return;
        }
        if (!writer->time_wait_receiver_read(late_read_wait_ms)) {
            counters_.late_read_timeouts.add_one();
        } else if (source != nullptr) {
            source->post_distributor_write();
        }
    }
}

// ---- the list ----

// Check and append under one lock: asking twice would wait for a second cycle, and two threads
// could both append.
void SHM_Stream_Transmission::insert_distributor(Writer* d) {
    if (d == nullptr) {
        return;
    }
    const zav_shm::Guard guard(*lock);
    if (reset_duplicate_of(*d)) {
        std::puts("Duplicate Distributor...");
        return;
    }
    d->reset();
    distributor_list.push_back(d);
    thread->wake();
}

bool SHM_Stream_Transmission::duplicate_distributor(const Writer* d) {
    if (d == nullptr) {
        return false;
    }
    const zav_shm::Guard guard(*lock);
    return reset_duplicate_of(*d);
}

void SHM_Stream_Transmission::delete_distributor(Writer* d) {
    if (d == nullptr) {
        return;
    }
    const zav_shm::Guard guard(*lock);
    distributor_list.remove(d);
    d->reset();
}

int SHM_Stream_Transmission::get_distributor_num() {
    const zav_shm::Guard guard(*lock);
    return static_cast<int>(distributor_list.size());
}

bool SHM_Stream_Transmission::reset_duplicate_of(const Writer& d) {
    for (Writer* const listed : distributor_list) {
        if (*listed == d) {
            listed->reset();
            return true;
        }
    }
    return false;
}

// ---- dump ----

std::ostream& operator<<(std::ostream& out, const SHM_Stream_Transmission& relay) {
    if (relay.source != nullptr) {
        out << *relay.source;
    }
    out << '\n';
    const zav_shm::Guard guard(*relay.lock);
    for (const auto* const writer : relay.distributor_list) {
        out << *writer << '\n';
    }
    return out;
}
