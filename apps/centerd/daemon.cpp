// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/daemon.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <new>

#include "apps/centerd/former_segments.h"
#include "apps/centerd/limits.h"
#include "apps/centerd/memory_folder.h"
#include "apps/centerd/ring_leftovers.h"
#include "apps/centerd/semaphore_leftovers.h"
#include "apps/centerd/service.h"
#include "apps/centerd/signals.h"
#include "apps/centerd/start_traces.h"

namespace zav_shm::centerd {

namespace {

// Of a center that follows another one.
constexpr int attempts_max = 10;
constexpr std::chrono::milliseconds pause_between_attempts{1000};

}  // namespace

Daemon::Daemon(const Options& options, ZAV_SHM_CONFIG& config, const Access_Rights& rights,
               const Control_Queues& queues)
    : options_(options),
      config_(config),
      rights_(rights),
      queues_(queues),
      inventory_(config),
      plan_(options, config, inventory_),
      folder_lock_(inventory_.lock, "the folder " + inventory_.segment_folder),
      queue_lock_(queues.lock_path(), "the pair of " + queues.text()) {}

// ---- what can be said without making anything ----

Outcome Daemon::check() const {
    const Room room = Room::for_start_of(inventory_);
    std::fputs(plan_.text(room).c_str(), stdout);
    Outcome held = find_holder();
    Outcome obstacle = held ? held : find_obstacles(room);
    std::puts(obstacle ? "cannot start" : "can start");
    return obstacle;
}

Outcome Daemon::find_holder() const {
    Outcome held = folder_lock_.find_holder();
    return held ? held : queue_lock_.find_holder();
}

Outcome Daemon::find_obstacles(const Room& room) const {
    if (Outcome unusable = check_memory_folder()) {
        return unusable;
    }
    if (Outcome foreign = Access_Rights::check_leftovers(inventory_)) {
        return foreign;
    }
    if (Outcome limited = check_limits(inventory_)) {
        return limited;
    }
    return room.check();
}

// ---- start and end ----

Outcome Daemon::run() {
    const Start_Traces traces(inventory_, queues_);
    Outcome failed = take_locks();
    if (failed) {
        release_locks();
        if (failed->status != Exit_Status::already_running) {
            traces.remove_folders();
        }
        return failed;
    }
    remove_semaphore_leftovers(inventory_.semaphores);
    try {
        failed = serve();
    } catch (const std::bad_alloc&) {
        failed = out_of_memory();
    }
    queues_.open_if_held(rights_.file());
    const bool start_failed = failed && !has_served_;
    if (start_failed) {
        traces.remove_objects();
    }
    if (options_.clean && folder_lock_.has_its_name() && queue_lock_.has_its_name()) {
        remove_objects();
    }
    release_locks();
    if (start_failed) {
        traces.remove_folders();
    }
    return failed;
}

// A center whose objects are lost is followed by the next one in the same process: the locks stay
// held, nobody has to start anything, and clients find it as after a restart. Whoever removed them
// may remove those of the next one while it is made, so that gets some attempts.
Outcome Daemon::serve() {
    for (int failures = 0;;) {
        Service service(
            {options_, config_, rights_, queues_, inventory_, plan_, folder_lock_, queue_lock_});
        Outcome failed = prepare_ground();
        failed = failed ? failed : service.run();
        lift_the_limit();
        has_served_ = has_served_ || service.has_served();
        failures = service.has_served() ? 0 : failures + 1;
        if (!failed && !service.has_lost_objects()) {
            return std::nullopt;
        }
        if (failed && !is_worth_another_attempt(*failed, failures)) {
            return failed;
        }
        if (failed) {
            report(*failed);
            if (is_end_wanted_within(pause_between_attempts)) {
                return std::nullopt;
            }
        }
        if (Outcome taken = take_locks_again()) {
            return taken;
        }
    }
}

Outcome Daemon::prepare_ground() {
    Outcome full = make_room();
    return full ? full : queues_.prepare(rights_.file(), Control_Queues::Requests::held);
}

bool Daemon::is_worth_another_attempt(const Failure& failed, int failures) const {
    return has_served_ && failures < attempts_max &&
           (failed.status == Exit_Status::system_error || failed.status == Exit_Status::no_room);
}

// Nothing is made before it is clear that nobody else serves here and that nothing hinders.
Outcome Daemon::take_locks() {
    if (Outcome held = folder_lock_.take_existing()) {
        return held;
    }
    if (Outcome held = queue_lock_.take_existing()) {
        return held;
    }
    if (Outcome obstacle = find_obstacles(Room::for_start_of(inventory_))) {
        return obstacle;
    }
    return take_locks_again();
}

// In a folder that is made, if it has to be.
Outcome Daemon::take_locks_again() {
    if (Outcome failed = Access_Rights::prepare_folder(inventory_.segment_folder)) {
        return failed;
    }
    Outcome failed = folder_lock_.take();
    return failed ? failed : queue_lock_.take();
}

// The memory of segments that are replaced is free only once nobody has them mapped.
Outcome Daemon::make_room() const {
    const auto replaced = Former_Segments(inventory_).of_another_length;
    if (replaced == 0) {
        return std::nullopt;
    }
    Former_Segments::remove_of_another_length(inventory_);
    report("segments of another length are replaced: " + std::to_string(replaced) +
           "; clients keep the former ones until they register again");
    Outcome full = Room::for_start_of(inventory_).check();
    if (full) {
        full->lines.emplace_back(
            "segments that were replaced take room while clients have them mapped: end those");
    }
    return full;
}

// A folder in which there is something stays.
void Daemon::release_locks() {
    queue_lock_.release();
    folder_lock_.release();
    if (options_.clean) {
        rmdir(inventory_.rings_folder.c_str());
        rmdir(inventory_.segment_folder.c_str());
        rmdir(inventory_.semaphore_folder.c_str());
    }
}

void Daemon::remove_objects() const {
    remove_semaphore_leftovers(inventory_.semaphores);
    for (const auto* files : {&inventory_.segments, &inventory_.semaphores}) {
        for (const Shared_File& file : *files) {
            unlink(file.path.c_str());
        }
    }
    remove_ring_leftovers(inventory_.rings_folder);
    queues_.remove();
}

}  // namespace zav_shm::centerd
