// SPDX-License-Identifier: Apache-2.0
#include "bench/placement.h"

#include <sched.h>

#include <cstddef>
#include <vector>

namespace zav_shm::bench {

namespace {

std::vector<std::size_t> cpus() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof allowed, &allowed);
    std::vector<std::size_t> found;
    for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) {
            found.push_back(cpu);
        }
    }
    return found;
}

void bind_to(std::size_t cpu) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(cpu, &only);
    sched_setaffinity(0, sizeof only, &only);
}

}  // namespace

std::optional<Placement> placement_named(const std::string& text) {
    if (text == "free") {
        return Placement::free;
    }
    if (text == "one") {
        return Placement::one;
    }
    if (text == "apart") {
        return Placement::apart;
    }
    return {};
}

int usable_cpus() { return static_cast<int>(cpus().size()); }

void place_relay(Placement placement) {
    if (placement != Placement::free) {
        bind_to(cpus().front());
    }
}

void place_client(Placement placement, int client) {
    if (placement == Placement::free) {
        return;
    }
    const std::vector<std::size_t> usable = cpus();
    const std::size_t others = usable.size() - 1;
    const bool shared = placement == Placement::one || others == 0;
    bind_to(shared ? usable.front() : usable[1 + static_cast<std::size_t>(client) % others]);
}

}  // namespace zav_shm::bench
