// SPDX-License-Identifier: Apache-2.0
#include "apps/doctor/doctor.h"

#include "apps/doctor/checks.h"

namespace zav_shm::doctor {

Findings examine(const Request& request) {
    const Host host = look_at_host(request);
    Findings findings;
    for (Findings (*check)(const Host&) :
         {check_shared_memory, check_center, check_queues, check_processes, check_leftovers,
          check_streams, check_clock, check_kernel}) {
        append(findings, check(host));
    }
    return findings;
}

}  // namespace zav_shm::doctor
