// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "apps/doctor/finding.h"
#include "apps/doctor/host.h"

namespace zav_shm::doctor {

/// Every check, in the order of docs/doctor.md. Changes nothing, registers nowhere, sends nothing;
/// takes some 1.3 s.
Findings examine(const Request& request);

}  // namespace zav_shm::doctor
