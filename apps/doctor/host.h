// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/centerd/inventory.h"
#include "apps/doctor/finding.h"
#include "apps/doctor/process_facts.h"
#include "apps/watch/center_look.h"
#include "apps/watch/snapshot.h"
#include "control/center_page.h"

namespace zav_shm::doctor {

struct Request {
    std::string folder = "shm";               // of the segments
    std::string configuration;                // file; empty: what the center names, if readable
    std::chrono::milliseconds silence{5000};  // a producer that writes nothing for longer is silent
    std::string version;                      // of this program
};

/// One that takes part: the center, a publisher, a reader.
struct Participant {
    std::string role;                    // "center", "publisher of CAM_LOOP/0/0"
    pid_t own_id = 0;                    // as it sees itself
    std::optional<Process_Facts> facts;  // nothing: not to be seen from here

    std::string text() const {
        return role + ", " + process_text(own_id, facts ? facts->command : "");
    }
};

/// What the checks look at, gathered once so that all speak of the same moment.
struct Host {
    Request request;

    std::optional<Center_Page> page;
    uid_t page_owner = 0;
    bool is_center_alive = false;
    std::optional<watch::Center_File> status;
    std::vector<std::string> other_centers;  // folders below /dev/shm in which others live

    std::unique_ptr<centerd::Inventory> inventory;  // of the configuration, when there is one
    std::vector<std::string> configuration_problems;
    watch::Snapshot snapshot;
    std::int64_t clock_step_ns = 0;  // of the wall clock, while it was looked
    std::vector<Participant> participants;
    Process_Facts self;

    /// "/dev/shm/shm"
    std::string segment_folder() const;

    /// Length of the greatest segment; 0 when neither center nor configuration tells.
    std::uint64_t greatest_segment() const;
};

/// Looks twice, 1.2 s apart, since rates and the clock's steps are between two looks. Takes no
/// lock, sends nothing and changes nothing.
Host look_at_host(Request request);

}  // namespace zav_shm::doctor
