// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace zav_shm::bench {

/// Which processors the processes of a run may use. What a frame costs is nearly all waking and
/// switching, and waking a process on another, sleeping processor takes several times as long:
/// left to the scheduler, one run may come out at ten times the rate of the next.
enum class Placement {
    free,   // as the scheduler likes
    one,    // all on one processor: no wake-up crosses
    apart,  // the relay on one, the clients on the others: every wake-up crosses
};

std::optional<Placement> placement_named(const std::string& text);

/// Processors that this process may use.
int usable_cpus();

/// Bind the calling process, for its life.
void place_relay(Placement placement);
void place_client(Placement placement, int client);

}  // namespace zav_shm::bench
