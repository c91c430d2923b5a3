// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "apps/centerd/access_rights.h"
#include "apps/centerd/center_lock.h"
#include "apps/centerd/control_queues.h"
#include "apps/centerd/inventory.h"
#include "apps/centerd/options.h"
#include "apps/centerd/outcome.h"
#include "apps/centerd/plan.h"
#include "apps/centerd/status_page.h"
#include "config/zav_shm_config.h"

namespace zav_shm::centerd {

class Event_Loop;
class Hosted_Center;
class Idle_Kicker;
class Upkeep;

/// One center and what is around it, from its construction to its end.
///
/// Requests are held when it begins, and taken once everything is ready.
class Service {
public:
    /// What the daemon has prepared; all of it outlives the service. Both locks are held.
    struct Ground {
        const Options& options;
        ZAV_SHM_CONFIG& config;
        const Access_Rights& rights;
        Control_Queues& queues;
        const Inventory& inventory;
        const Plan& plan;
        Center_Lock& folder_lock;
        Center_Lock& queue_lock;
    };

    /// Draws the epoch of the center to come.
    explicit Service(const Ground& ground);

    /// Serves until a signal tells it to end, or something that the center has made is lost.
    Outcome run();

    /// True when clients were answered.
    bool has_served() const { return has_served_; }

    /// True when it ended because of a loss, which has been reported: another center has to be
    /// made. Requests are held then.
    bool has_lost_objects() const { return has_lost_objects_; }

private:
    Outcome open_to_clients(Hosted_Center& hosted, std::optional<Idle_Kicker>& kicker);
    Outcome start_kicker(Hosted_Center& hosted, std::optional<Idle_Kicker>& kicker) const;
    Outcome run_loop(Hosted_Center& hosted);
    void look_after(Upkeep& upkeep, Event_Loop& loop);
    void announce() const;
    void withdraw_page() const;

    const Ground ground_;
    Request_Account account_;
    Status_Page published_;
    Outcome taken_over_;  // why this center has to leave its place to another one
    bool has_served_ = false;
    bool has_lost_objects_ = false;
};

}  // namespace zav_shm::centerd
