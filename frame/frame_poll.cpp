// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_poll.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <system_error>
#include <utility>

#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

// How often the name is looked at while nothing happens, as everywhere.
constexpr std::int64_t look_interval_ns = 1'000'000'000;

ino_t inode_of(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

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
        const std::lock_guard guard(mutex_);
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
void Frame_Poll::nothing_left(std::shared_ptr<const Ring_Memory> ring, std::uint64_t next,
                              const std::string& path) {
    const std::lock_guard guard(mutex_);
    if (waits_) {
        return;
    }
    eventfd_t events = 0;
    eventfd_read(readable_.get(), &events);
    place_ = {std::move(ring), next, path};
    waits_ = true;
    changed_.notify_all();
}

void Frame_Poll::run() {
    pthread_setname_np(pthread_self(), "zav_poll");
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        changed_.wait(lock, [this] { return waits_ || stopping_; });
        if (stopping_) {
            return;
        }
        follower_ = place_.ring ? std::make_shared<Ring_Follower>(place_.ring)
                                : std::make_shared<Ring_Follower>(place_.path,
                                                                  Ring_Memory::Reading::copied);
        while (!stopping_ && !has_something(*follower_)) {
            const std::int64_t deadline_ns = monotonic_ns() + look_interval_ns;
            lock.unlock();
            follower_->wait(deadline_ns);
            lock.lock();
            if (monotonic_ns() < deadline_ns) {
                break;  // somebody has woken it: there is something to look at, perhaps
            }
        }
        follower_.reset();
        waits_ = false;
        eventfd_write(readable_.get(), 1);
    }
}

bool Frame_Poll::has_something(Ring_Follower& follower) const {
    if (!place_.ring) {
        return follower.changes_over();
    }
    Ring_Reader& reader = *follower.reader();
    reader.move_to(place_.next);
    Ring_Record record;
    const ino_t named = place_.path.empty() ? 0 : inode_of(place_.path);
    return reader.look(record) != Ring_Reader::Look::nothing ||
           (named != 0 && named != place_.ring->inode());
}

}  // namespace zav_shm
