// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "apps/centerd/access_rights.h"
#include "apps/centerd/control_queues.h"
#include "apps/centerd/inventory.h"
#include "apps/centerd/outcome.h"
#include "apps/centerd/self_check.h"
#include "center/shm_center.h"

namespace zav_shm::centerd {

/// The center, from its construction to its shutdown.
class Hosted_Center {
public:
    /// Builds the center, which takes 100 ms and more, and keeps the interrupting signal from all
    /// threads but its own. The center would answer from then on: requests are to be held.
    /// Everything given outlives this.
    Hosted_Center(ZAV_SHM_CONFIG& config, const Inventory& inventory, const Control_Queues& queues);

    /// Shuts the center down: its threads have left afterwards.
    ~Hosted_Center();
    Hosted_Center(const Hosted_Center&) = delete;
    Hosted_Center& operator=(const Hosted_Center&) = delete;

    /// Gives everything that the center has made group and mode. The center's constructor reports
    /// no failure, so this finds out whether all was made and every relay runs.
    Outcome make_ready(const Access_Rights& rights) const;

    /// Finds out whether requests, which are held no more, are answered.
    Outcome check_answers();

    ZAV_SHM_CENTER& center() { return center_; }
    Self_Check& self_check() { return self_check_; }

private:
    Outcome check_objects(const Access_Rights& rights) const;
    Outcome check_relays() const;

    ZAV_SHM_CONFIG* config_;
    const Inventory& inventory_;
    ZAV_SHM_CENTER center_;
    Self_Check self_check_;
};

}  // namespace zav_shm::centerd
