// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_poll.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <system_error>
#include <utility>

#include "ipc/file_inode.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

// How often the name is looked at while nothing happens, as everywhere.
constexpr std::int64_t look_interval_ns = 1'000'000'000;

}  // namespace

std::unique_ptr<Frame_Poll> Frame_Poll::begin() {
    std::unique_ptr<Frame_Poll> poll(new Frame_Poll);  // its constructor is private
    poll->readable_ = Descriptor(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
    try {
        poll->thread_ = std::thread([&body = *poll] { body.run(); });
    } catch (const std::system_error&) {
        return nullptr;
    }
    return poll->readable_.is_open() ? std::move(poll) : nullptr;
}

Frame_Poll::~Frame_Poll() {
    if (!thread_.joinable()) {
        return;
    }
    std::shared_ptr<Ring_Follower> follower;
    {
        const Guard guard(mutex_);
        stopping_ = true;
        follower = follower_;
        changed_.notify_all();
    }
    if (follower) {
        follower->wake();
    }
    thread_.join();
}

// Cleared before the thread looks again: what comes in between is found by it.
void Frame_Poll::nothing_left(Place place) {
    const Guard guard(mutex_);
    if (waits_) {
        return;
    }
    eventfd_t events = 0;
    eventfd_read(readable_.get(), &events);
    place_ = std::move(place);
    waits_ = true;
    changed_.notify_all();
}

void Frame_Poll::run() {
    pthread_setname_np(pthread_self(), "zav_poll");
    for (std::shared_ptr<Ring_Follower> follower; (follower = wait_for_place());) {
        watch_place(*follower);
    }
}

// Null when the thread is to end.
std::shared_ptr<Ring_Follower> Frame_Poll::wait_for_place() {
    Waiting_Guard guard(mutex_);
    changed_.wait(guard.lock(), [this]() ZAV_SHM_REQUIRES(mutex_) { return waits_ || stopping_; });
    if (stopping_) {
        return nullptr;
    }
    follower_ = place_.ring
                    ? std::make_shared<Ring_Follower>(place_.ring)
                    : std::make_shared<Ring_Follower>(place_.path, Ring_Memory::Reading::copied);
    return follower_;
}

// Until there is something at the place, or until somebody has woken the thread: then there is
// something to look at, perhaps.
void Frame_Poll::watch_place(Ring_Follower& follower) {
    Place place = [this] {
        const Guard guard(mutex_);
        return place_;
    }();
    std::int64_t deadline_ns = 0;
    do {
        if (has_something(place, follower)) {
            break;
        }
        deadline_ns = monotonic_ns() + look_interval_ns;
        follower.wait(deadline_ns);
    } while (monotonic_ns() >= deadline_ns && !is_stopping());
    const Guard guard(mutex_);
    follower_.reset();
    waits_ = false;
    eventfd_write(readable_.get(), 1);
}

// The destructor wakes once, and that may be just when the time of a wait is over.
bool Frame_Poll::is_stopping() {
    const Guard guard(mutex_);
    return stopping_;
}

// The route, since the wake of a center that has changed it may come before the sleep.
bool Frame_Poll::has_something(Place& place, Ring_Follower& follower) {
    if (place.route.look()) {
        return true;
    }
    if (!place.ring) {
        return follower.changes_over();
    }
    Ring_Reader& reader = *follower.reader();
    reader.move_to(place.next);
    Ring_Record record;
    const ino_t named = place.path.empty() ? 0 : inode_of(place.path);
    return reader.look(record) != Ring_Reader::Look::nothing ||
           (named != 0 && named != place.ring->inode());
}

}  // namespace zav_shm
