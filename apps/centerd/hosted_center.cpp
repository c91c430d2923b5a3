// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/hosted_center.h"

#include "apps/centerd/signals.h"

namespace zav_shm::centerd {

namespace {

constexpr std::chrono::seconds first_answer_max{5};

}  // namespace

Hosted_Center::Hosted_Center(ZAV_SHM_CONFIG& config, const Inventory& inventory,
                             const Control_Queues& queues)
    : config_(&config), inventory_(inventory), center_(config_), self_check_(queues) {
    block_interrupting_signal();
    center_.enable_kick_idle_client(config.kick_idle);
}

Hosted_Center::~Hosted_Center() {
    center_.shutdown();
    self_check_.forget();
}

Outcome Hosted_Center::open_to_clients(const Access_Rights& rights) {
    if (Outcome failed = rights.apply(inventory_)) {
        return failed;
    }
    // Signal 0 only asks: a real one would cost a client that is early a frame.
    const int running = center_.manager()->interrupt_waits(0);
    if (running != inventory_.relays) {
        return failure(Exit_Status::system_error,
                       "only " + std::to_string(running) + " of " +
                           std::to_string(inventory_.relays) +
                           " relay threads could be started; raise the limit of threads (ulimit "
                           "-u, TasksMax=), or configure fewer channels");
    }
    if (!self_check_.answers_within(first_answer_max)) {
        return failure(Exit_Status::system_error,
                       "the center does not answer on its queues within 5 s; see whether another "
                       "process takes requests off them (ipcs -q -p)");
    }
    return std::nullopt;
}

}  // namespace zav_shm::centerd
