// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

/// Runs `action` in a process of its own in a PID namespace of its own, as in a container that
/// shares everything else with this process.
///
/// @param pid  its process id there; 0: some id
/// @return what the action returned, 0 .. 100; above that, it could not be run.
int result_in_pid_namespace(const std::function<int()>& action, int pid = 0);
