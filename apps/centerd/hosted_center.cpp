// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/hosted_center.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "apps/centerd/limits.h"
#include "apps/centerd/room.h"
#include "apps/centerd/signals.h"

namespace zav_shm::centerd {

namespace {

constexpr std::chrono::seconds first_answer_max{5};

constexpr const char* receive_thread = "zav_center";

// True also where nobody can tell.
bool has_thread(const std::string& name) {
    std::error_code unknown;
    const std::filesystem::directory_iterator tasks("/proc/self/task", unknown);
    return unknown || std::any_of(begin(tasks), end(tasks), [&name](const auto& task) {
               std::ifstream file(task.path() / "comm");
               std::string comm;
               return std::getline(file, comm) && comm == name;
           });
}

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

Outcome Hosted_Center::make_ready(const Access_Rights& rights) const {
    Outcome failed = check_objects(rights);
    return failed ? failed : check_relays();
}

// What is missing was refused room when the center wanted to make it: others may have taken it
// since the start compared need and room.
Outcome Hosted_Center::check_objects(const Access_Rights& rights) const {
    Outcome failed = rights.apply(inventory_);
    Outcome no_room = failed ? Room::for_the_rest_of(inventory_).check() : std::nullopt;
    return no_room ? no_room : failed;
}

// Signal 0 only asks: a real one would cost a client that is early a frame.
Outcome Hosted_Center::check_relays() const {
    const int running = center_.manager()->interrupt_waits(0);
    if (running == inventory_.relays) {
        return std::nullopt;
    }
    return failure(Exit_Status::system_error,
                   "only " + std::to_string(running) + " of " + std::to_string(inventory_.relays) +
                       " relay threads could be started: " + limit_on_threads());
}

Outcome Hosted_Center::check_answers() {
    if (self_check_.answers_within(first_answer_max)) {
        return std::nullopt;
    }
    return failure(Exit_Status::system_error,
                   has_thread(receive_thread)
                       ? "the center does not answer on its queues within 5 s; see whether another "
                         "process takes requests off them (ipcs -q -p)"
                       : "the center's receive thread could not be started: " + limit_on_threads());
}

}  // namespace zav_shm::centerd
