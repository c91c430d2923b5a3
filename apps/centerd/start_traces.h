// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "apps/centerd/control_queues.h"
#include "apps/centerd/inventory.h"

namespace zav_shm::centerd {

/// What of a configuration was not there before a start, and is to go again when the start fails:
/// it leaves what it found. Only for who holds the locks.
class Start_Traces {
public:
    /// Notes what is not there. Both outlive this.
    Start_Traces(const Inventory& inventory, const Control_Queues& queues);

    /// Removes what is there now.
    void remove_objects() const;

    /// Removes the folders that are empty, after the locks in them.
    void remove_folders() const;

private:
    const Control_Queues& queues_;
    bool had_queues_;
    std::vector<std::string> absent_files_;
    std::vector<std::string> absent_folders_;
};

}  // namespace zav_shm::centerd
