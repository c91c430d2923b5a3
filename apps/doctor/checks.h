// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/timex.h>

#include "apps/doctor/finding.h"
#include "apps/doctor/host.h"

// The checks, by group. Each returns what is wrong, or one finding `ok` for each thing that is
// well. docs/doctor.md has a row for each name of a check.

namespace zav_shm::doctor {

Findings check_shared_memory(const Host& host);  // /dev/shm: mount, rights, room
Findings check_queues(const Host& host);         // /tmp, the two queues, limits of the kernel
Findings check_processes(const Host& host);      // namespaces, /tmp, limits, 32 and 64 bits
Findings check_center(const Host& host);         // none, hangs, two, version
Findings check_leftovers(const Host& host);      // locks, segments, semaphores, rings, cards
Findings check_streams(const Host& host);        // silent, not reading, losing
Findings check_kernel(const Host& host);         // futexes, locks of open files
Findings check_clock(const Host& host);          // steps, and who keeps the clock

/// What adjtimex() returned and told. A part of check_clock().
Finding clock_keeping(int state, const timex& told);

}  // namespace zav_shm::doctor
