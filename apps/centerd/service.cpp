// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/service.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "apps/centerd/clock_watch.h"
#include "apps/centerd/configuration.h"
#include "apps/centerd/event_loop.h"
#include "apps/centerd/hosted_center.h"
#include "apps/centerd/idle_kicker.h"
#include "apps/centerd/limits.h"
#include "apps/centerd/memory_folder.h"
#include "apps/centerd/notifier.h"
#include "apps/centerd/self_check.h"
#include "apps/centerd/signals.h"
#include "apps/centerd/status_names.h"
#include "apps/centerd/upkeep.h"
#include "apps/text/printable.h"

namespace zav_shm::centerd {

namespace {

using std::chrono::milliseconds;

// Several times what the slowest relay's cycle and freeing all memory take.
constexpr unsigned end_max_s = 4;

constexpr milliseconds upkeep_period{1000};

// The watchdog hears this often within its time that all is well.
constexpr int watchdog_parts = 4;

// After a step of the clock. A relay that had just read the clock and not begun to wait when the
// signal came is reached by one of the next; it takes a few microseconds from one to the other.
constexpr int further_interruptions = 4;
constexpr milliseconds interruption_period{70};

}  // namespace

Service::Service(const Ground& ground)
    : ground_(ground),
      published_(ground.config.shm_path, title_of(ground.options.config_path),
                 status_names(ground.config), account_, ground.rights.file()) {}

// The page of a center that was killed goes before there is another one: without a page clients
// know that they have to wait, with the wrong one they would not.
Outcome Service::run() {
    published_.remove();
    Hosted_Center hosted(ground_.config, ground_.inventory, ground_.queues);
    hosted.center().watch_requests([this](const Center_Event& event) { account_.add(event); });
    std::optional<Idle_Kicker> kicker;
    Outcome failed = open_to_clients(hosted, kicker);
    if (!failed) {
        failed = run_loop(hosted);
    }
    limit_the_end(end_max_s);
    withdraw_page();
    if (has_lost_objects_) {
        Notifier::not_ready("the center is made anew");
        ground_.queues.prepare(ground_.rights.file(), Control_Queues::Requests::held);
    } else if (has_served_) {
        Notifier::stopping();
    }
    return failed;
}

// ---- start ----

// Clients that are answered find everything: group and mode of what they open, and the page.
Outcome Service::open_to_clients(Hosted_Center& hosted, std::optional<Idle_Kicker>& kicker) {
    if (Outcome failed = hosted.make_ready(ground_.rights)) {
        return failed;
    }
    if (!published_.write_page() || !published_.write_status(hosted.center())) {
        return memory_failure("page and status in " + ground_.inventory.segment_folder, errno,
                              "the folder has to be the own user's");
    }
    if (Outcome failed = start_kicker(hosted, kicker)) {
        return failed;
    }
    if (Outcome failed = ground_.queues.prepare(ground_.rights.file())) {
        return failed;
    }
    return hosted.check_answers();
}

Outcome Service::start_kicker(Hosted_Center& hosted, std::optional<Idle_Kicker>& kicker) const {
    if (ground_.options.kick_interval.count() == 0) {
        return std::nullopt;
    }
    try {
        kicker.emplace(hosted.center(), ground_.options.kick_interval);
    } catch (const std::system_error& refused) {
        return failure(Exit_Status::system_error,
                       "the thread of the idle kick could not be started: " + limit_on_threads());
    }
    return std::nullopt;
}

void Service::announce() const {
    for (const std::string& warning : ground_.plan.warnings(Room::of_clients(ground_.inventory))) {
        report("warning: " + warning);
    }
    const std::string served = printable(ground_.plan.summary());
    std::printf("zav-shm-centerd " ZAV_SHM_VERSION " (pid %d) is ready and serves %s, %s, %s\n",
                static_cast<int>(getpid()), served.c_str(), ground_.queues.text().c_str(),
                printable(ground_.rights.text()).c_str());
    std::fflush(stdout);
    Notifier::ready("serves " + served);
}

// ---- service ----

Outcome Service::run_loop(Hosted_Center& hosted) {
    Event_Loop loop;
    Clock_Watch clock;
    Upkeep upkeep({ground_.queues, ground_.rights, ground_.inventory, ground_.folder_lock,
                   ground_.queue_lock, published_, hosted.center()});
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
    loop.every(upkeep_period, [&] { look_after(upkeep, loop); });
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
    return taken_over_;
}

// The locks first: when another center serves here, what is missing is missing for its sake.
void Service::look_after(Upkeep& upkeep, Event_Loop& loop) {
    taken_over_ = upkeep.keep_locks();
    if (taken_over_) {
        loop.end();
        return;
    }
    if (const auto lost = upkeep.find_loss()) {
        report(*lost + "; the center is made anew, and its clients have to register again");
        has_lost_objects_ = true;
        loop.end();
        return;
    }
    upkeep.refresh();
}

// Not that of a center which has taken the place of this one.
void Service::withdraw_page() const {
    if (ground_.folder_lock.has_its_name()) {
        published_.remove();
    }
}

}  // namespace zav_shm::centerd
