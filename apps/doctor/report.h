// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "apps/doctor/finding.h"

namespace zav_shm::doctor {

/// A line for each finding, and one with counts; in printable form.
///
/// @param verbose  also of what is well
std::string text_of(const Findings& findings, bool verbose);

/// docs/doctor.md has the members. On one line, with a line end.
std::string json_of(const Findings& findings, int exit_status);

/// As the other commands: 0 all well but for notes, 1 warnings, 3 the center does not run or hangs
/// and no other error, 6 other errors.
int exit_status_of(const Findings& findings);

}  // namespace zav_shm::doctor
