// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/outcome.h"

#include <cstring>

namespace zav_shm::centerd {

Failure system_failure(const std::string& what, int error, const std::string& remedy) {
    return failure(Exit_Status::system_error, what + ": " + std::strerror(error) + "; " + remedy);
}

void report(const std::string& line, Log_Level level) { write_log(level, line); }

void report(const Failure& failure) {
    for (const std::string& line : failure.lines) {
        report(line, Log_Level::error);
    }
}

int exit_code(const Failure& failure) {
    report(failure);
    return static_cast<int>(failure.status);
}

}  // namespace zav_shm::centerd
