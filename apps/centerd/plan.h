// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "apps/centerd/inventory.h"
#include "apps/centerd/options.h"
#include "apps/centerd/room.h"
#include "config/zav_shm_config.h"

namespace zav_shm::centerd {

/// What a start would make, in figures, for a person to read.
class Plan {
public:
    /// All outlive the plan.
    Plan(const Options& options, const ZAV_SHM_CONFIG& config, const Inventory& inventory);

    /// The whole plan, a line for each name.
    std::string text(const Room& room) const;

    /// "5 producer and 7 consumer channels from FILE: ...", for the one line that a start prints;
    /// with what clients will be refused although the configuration is a proper one.
    std::string summary() const;

    /// What the configuration probably does not mean, and limits that will be felt.
    std::vector<std::string> warnings(const Room& room) const;

private:
    std::vector<std::string> refusals() const;
    std::string names_text() const;
    std::string kick_text() const;

    const Options& options_;
    const ZAV_SHM_CONFIG& config_;
    const Inventory& inventory_;
};

}  // namespace zav_shm::centerd
