// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/daemon.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "apps/centerd/clock_watch.h"
#include "apps/centerd/configuration.h"
#include "apps/centerd/event_loop.h"
#include "apps/centerd/former_segments.h"
#include "apps/centerd/hosted_center.h"
#include "apps/centerd/idle_kicker.h"
#include "apps/centerd/limits.h"
#include "apps/centerd/memory_folder.h"
#include "apps/centerd/notifier.h"
#include "apps/centerd/printable.h"
#include "apps/centerd/self_check.h"
#include "apps/centerd/signals.h"
#include "apps/centerd/start_traces.h"

namespace zav_shm::centerd {

namespace {

using std::chrono::milliseconds;

// Several times what the slowest relay's cycle and freeing all memory take.
constexpr unsigned end_max_s = 4;

constexpr milliseconds status_period{1000};

// The watchdog hears this often within its time that all is well.
constexpr int watchdog_parts = 4;

// After a step of the clock. A relay that had just read the clock and not begun to wait when the
// signal came is reached by one of the next; it takes a few microseconds from one to the other.
constexpr int further_interruptions = 4;
constexpr milliseconds interruption_period{70};

// A start that fails must not leave a queue behind in which no request fits.
class Opened_At_The_End {
public:
    Opened_At_The_End(Control_Queues& queues, File_Access access)
        : queues_(queues), access_(access) {}
    ~Opened_At_The_End() { queues_.prepare(access_); }
    Opened_At_The_End(const Opened_At_The_End&) = delete;
    Opened_At_The_End& operator=(const Opened_At_The_End&) = delete;

private:
    Control_Queues& queues_;
    const File_Access access_;
};

}  // namespace

Daemon::Daemon(const Options& options, ZAV_SHM_CONFIG& config, const Access_Rights& rights,
               const Control_Queues& queues)
    : options_(options),
      config_(config),
      rights_(rights),
      queues_(queues),
      inventory_(config),
      plan_(options, config, inventory_),
      published_(config.shm_path, title_of(options.config_path), rights.file()),
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
        return failed;
    }
    failed = make_room();
    if (!failed) {
        failed = queues_.prepare(rights_.file(), Control_Queues::Requests::held);
    }
    try {
        failed = failed ? failed : serve();
    } catch (const std::bad_alloc&) {
        failed = out_of_memory();
    }
    const bool start_failed = failed && !has_served_;
    if (start_failed) {
        traces.remove_objects();
    }
    if (options_.clean) {
        remove_objects();
    }
    release_locks();
    if (start_failed) {
        traces.remove_folders();
    }
    return failed;
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
    if (Outcome failed = Access_Rights::prepare_folder(inventory_.segment_folder)) {
        return failed;
    }
    if (Outcome failed = folder_lock_.take()) {
        return failed;
    }
    return queue_lock_.take();
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
        rmdir(inventory_.segment_folder.c_str());
        rmdir(inventory_.semaphore_folder.c_str());
    }
}

void Daemon::remove_objects() const {
    for (const auto* files : {&inventory_.segments, &inventory_.semaphores}) {
        for (const Shared_File& file : *files) {
            unlink(file.path.c_str());
        }
    }
    queues_.remove();
}

// ---- service ----

// The page of a center that was killed goes before there is another one: without a page clients
// know that they have to wait, with the wrong one they would not.
Outcome Daemon::serve() {
    published_.remove();
    const Opened_At_The_End hold(queues_, rights_.file());
    Hosted_Center hosted(config_, inventory_, queues_);
    std::optional<Idle_Kicker> kicker;
    Outcome failed = open_to_clients(hosted, kicker);
    if (!failed) {
        failed = run_loop(hosted);
    }
    Notifier::stopping();
    limit_the_end(end_max_s);
    published_.remove();
    return failed;
}

// Clients that are answered find everything: group and mode of what they open, and the page.
Outcome Daemon::open_to_clients(Hosted_Center& hosted, std::optional<Idle_Kicker>& kicker) {
    if (Outcome failed = hosted.make_ready(rights_)) {
        return failed;
    }
    if (!published_.write_page() || !published_.write_status(hosted.center())) {
        return memory_failure("page and status in " + inventory_.segment_folder, errno,
                              "the folder has to be the own user's");
    }
    if (Outcome failed = start_kicker(hosted, kicker)) {
        return failed;
    }
    if (Outcome failed = queues_.prepare(rights_.file())) {
        return failed;
    }
    return hosted.check_answers();
}

Outcome Daemon::start_kicker(Hosted_Center& hosted, std::optional<Idle_Kicker>& kicker) const {
    if (options_.kick_interval.count() == 0) {
        return std::nullopt;
    }
    try {
        kicker.emplace(hosted.center(), options_.kick_interval);
    } catch (const std::system_error& refused) {
        return failure(
            Exit_Status::system_error,
            std::string("the thread of the idle kick could not be started: ") + limit_on_threads());
    }
    return std::nullopt;
}

void Daemon::announce() const {
    for (const std::string& warning : plan_.warnings()) {
        report("warning: " + warning);
    }
    const std::string served = printable(plan_.summary());
    std::printf("zav-shm-centerd " ZAV_SHM_VERSION " (pid %d) is ready and serves %s, %s, %s\n",
                static_cast<int>(getpid()), served.c_str(), queues_.text().c_str(),
                printable(rights_.text()).c_str());
    std::fflush(stdout);
    Notifier::ready("serves " + served);
}

Outcome Daemon::run_loop(Hosted_Center& hosted) {
    Event_Loop loop;
    Clock_Watch clock;
    const Descriptor end = make_end_descriptor();
    const auto free_relays = [&hosted] {
        hosted.center().manager()->interrupt_waits(interrupting_signal);
    };
    loop.on_readable(end.get(), [&loop] { loop.end(); });
    loop.on_readable(clock.descriptor(), [&] {
        if (clock.was_set()) {
            free_relays();
            loop.repeat(further_interruptions, interruption_period, free_relays);
        }
    });
    loop.every(status_period, [&] { refresh(hosted); });
    if (const auto interval = Notifier::watchdog_interval()) {
        loop.every(std::max(*interval / watchdog_parts, milliseconds(1)), [&hosted] {
            if (hosted.self_check().step()) {
                Notifier::alive();
            }
        });
    }
    if (!loop.is_open() || !end.is_open()) {
        return system_failure("descriptors of the main thread", errno,
                              "raise their limit (ulimit -n, LimitNOFILE=)");
    }
    has_served_ = true;
    announce();
    loop.run();
    return std::nullopt;
}

// Once a second. A queue that somebody removed has no permissions when the center makes it anew.
void Daemon::refresh(Hosted_Center& hosted) {
    if (queues_.were_replaced()) {
        queues_.prepare(rights_.file());
    }
    const bool written = published_.write_status(hosted.center());
    if (!written && !status_failed_) {
        report(published_.status_path() + " cannot be written: " + std::strerror(errno) +
               "; it stays as it is until there is room");
    }
    status_failed_ = !written;
}

}  // namespace zav_shm::centerd
