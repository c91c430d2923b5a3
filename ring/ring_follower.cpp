// SPDX-License-Identifier: Apache-2.0
#include "ring/ring_follower.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "ipc/file_inode.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

// How often the name is looked at without any other reason: a writer that was killed tells nobody,
// and the wake of its successor can come at the wrong moment.
constexpr std::int64_t look_interval_ns = 1'000'000'000;

// A sleep that ends early again and again, without a record coming of it, is no sleep: somebody
// plays with the head. From then on each one lasts this long.
constexpr int in_vain_max = 64;
constexpr std::chrono::milliseconds pause_in_vain{1};

// Between two wakes of a follower that is about to sleep, or asleep.
constexpr std::chrono::microseconds wake_again{50};

}  // namespace

Ring_Follower::Ring_Follower(std::string path, Ring_Memory::Reading reading)
    : path_(std::move(path)), reading_(reading) {}

Ring_Follower::Ring_Follower(std::function<std::string()> where, Ring_Memory::Reading reading)
    : where_(std::move(where)), path_(where_()), reading_(reading) {}

Ring_Follower::Ring_Follower(std::shared_ptr<const Ring_Memory> ring)
    : reader_(std::make_unique<Ring_Reader>(std::move(ring))) {}

bool Ring_Follower::changes_over() {
    const std::int64_t now = monotonic_ns();
    // Without a ring to read, each call looks: it may be a poll that never waits.
    const bool may_have_ended = reader_ ? reader_->is_closed() : given_up_ == 0;
    if (path_.empty() || (!is_due(now) && !may_have_ended)) {
        return false;
    }
    looks_now_ = false;
    next_look_ns_ = now + look_interval_ns;
    if (reader_ && reader_->memory().has_shrunk()) {
        give_up("it was truncated");
    }
    return take_ring();
}

bool Ring_Follower::take_ring() {
    if (where_) {
        path_ = where_();
    }
    const std::uint64_t inode = inode_of(path_);
    if (reader_ && (inode == 0 || inode == reader_->memory().inode())) {
        return false;
    }
    // Another ring has the name, so that the writer of this one has ended. What it wrote since the
    // latest look, in its last moment, is read first.
    if (reader_ && has_more()) {
        looks_now_ = true;
        return false;
    }
    if (inode != 0 && inode == std::exchange(given_up_, 0)) {
        return false;  // once: the next look tries it again
    }
    Ring_Problem problem;
    auto ring = Ring_Memory::open(path_, reading_, problem);
    if (!ring) {
        problem_ = std::move(problem);
        return false;
    }
    problem_ = {};
    use(std::make_unique<Ring_Reader>(std::move(ring)));
    names_.end();
    return true;
}

bool Ring_Follower::has_more() const {
    Ring_Record record;
    const Ring_Reader::Look seen = reader_->look(record);
    return seen == Ring_Reader::Look::record || seen == Ring_Reader::Look::overtaken;
}

// The former reader goes, and is unmapped, when the lock is free again.
void Ring_Follower::use(std::unique_ptr<Ring_Reader> reader) {
    {
        const Guard guard(mutex_);
        reader_.swap(reader);
    }
    ended_early_ = false;
}

void Ring_Follower::give_up(const std::string& why) {
    problem_ = {Ring_Problem::Kind::unreadable, path_ + " is damaged: " + why, 0};
    given_up_ = reader_ ? reader_->memory().inode() : 0;
    use(nullptr);
}

void Ring_Follower::wait(std::int64_t deadline_ns) {
    // Before the flag is looked at: wake() sets the flag and then looks whether somebody waits.
    waits_ = true;
    if (woken_.exchange(false)) {
        waits_ = false;
        return;
    }
    const std::int64_t begin = monotonic_ns();
    deadline_ns = std::min(deadline_ns, path_.empty() ? begin + look_interval_ns : next_look_ns_);
    if (reader_) {
        sleep_on_head(deadline_ns);
    } else {
        names_.begin(ring_folder(path_));
        if (inode_of(path_) == 0 || problem_.kind != Ring_Problem::Kind::absent) {
            names_.sleep(deadline_ns);
        }
        looks_now_ = true;
    }
    waits_ = false;
    // Read, not only cleared: what another thread did before its wake() is seen behind this.
    if (woken_.exchange(false)) {
        ended_early_ = false;
    }
}

void Ring_Follower::sleep_on_head(std::int64_t deadline_ns) {
    const std::uint64_t found_before = std::exchange(found_, reader_->records_found());
    in_vain_ = ended_early_ && found_ == found_before ? in_vain_ + 1 : 0;
    if (in_vain_ > in_vain_max) {
        std::this_thread::sleep_for(pause_in_vain);
    }
    ended_early_ = reader_->wait(deadline_ns) != Futex_Wait::timed_out;
    looks_now_ = looks_now_ || !reader_->has_news();
}

// Again and again: a single wake may come just before the sleep.
void Ring_Follower::wake() {
    woken_ = true;
    while (waits_ && woken_) {
        {
            const Guard guard(mutex_);
            if (reader_) {
                reader_->wake();
            }
        }
        names_.wake();
        std::this_thread::sleep_for(wake_again);
    }
}

}  // namespace zav_shm
