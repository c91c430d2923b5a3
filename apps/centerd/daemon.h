// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "apps/centerd/access_rights.h"
#include "apps/centerd/center_lock.h"
#include "apps/centerd/control_queues.h"
#include "apps/centerd/inventory.h"
#include "apps/centerd/options.h"
#include "apps/centerd/outcome.h"
#include "apps/centerd/plan.h"
#include "config/zav_shm_config.h"

namespace zav_shm::centerd {

/// One run of the daemon, from a configuration that was loaded to the end.
///
/// Order of a start: what can be refused without making anything; both locks; queues, whose
/// requests are held; the center; access rights; page and status. Then requests are taken, and the
/// one line says what is served. The end is the same backwards. A center whose objects somebody
/// has removed is followed by another one.
class Daemon {
public:
    /// All outlive the daemon.
    Daemon(const Options& options, ZAV_SHM_CONFIG& config, const Access_Rights& rights,
           const Control_Queues& queues);

    /// Prints the plan and finds out what a start would be refused for. Makes nothing.
    Outcome check() const;

    /// Serves until a signal tells it to end.
    Outcome run();

private:
    Outcome find_holder() const;
    Outcome find_obstacles(const Room& room) const;
    Outcome take_locks();
    Outcome take_locks_again();
    Outcome prepare_ground();
    bool is_worth_another_attempt(const Failure& failed, int failures) const;
    Outcome make_room() const;
    void release_locks();
    Outcome serve();
    void remove_objects() const;

    const Options& options_;
    ZAV_SHM_CONFIG& config_;
    const Access_Rights& rights_;
    Control_Queues queues_;
    const Inventory inventory_;
    const Plan plan_;
    Center_Lock folder_lock_;
    Center_Lock queue_lock_;
    bool has_served_ = false;
};

}  // namespace zav_shm::centerd
