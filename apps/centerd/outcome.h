// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/log/log.h"

namespace zav_shm::centerd {

/// What the process ends with; docs/daemon.md lists them for scripts.
enum class Exit_Status {
    orderly = 0,
    system_error = 1,
    usage = 2,
    configuration_refused = 3,
    already_running = 4,
    no_room = 5,
};

/// Why the daemon does not start. Each line names the thing, the value, the limit and the remedy.
struct Failure {
    Exit_Status status = Exit_Status::system_error;
    std::vector<std::string> lines;
};

/// Nothing when all went well.
using Outcome = std::optional<Failure>;

inline Failure failure(Exit_Status status, const std::string& line) { return {status, {line}}; }

/// "<what>: <text of the error number>; <remedy>"
Failure system_failure(const std::string& what, int error, const std::string& remedy);

/// Logs a line whose first words name the object.
void report(const std::string& line, Log_Level level = Log_Level::warning);

/// Logs every line as an error.
void report(const Failure& failure);

/// Reports every line.
///
/// @return what the process ends with.
int exit_code(const Failure& failure);

}  // namespace zav_shm::centerd
