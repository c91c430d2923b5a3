// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/outcome.h"

#include <cstdio>
#include <cstring>

#include "apps/text/printable.h"

namespace zav_shm::centerd {

Failure system_failure(const std::string& what, int error, const std::string& remedy) {
    return failure(Exit_Status::system_error, what + ": " + std::strerror(error) + "; " + remedy);
}

void report(const std::string& line) {
    std::fprintf(stderr, "zav-shm-centerd: %s\n", printable(line).c_str());
}

void report(const Failure& failure) {
    for (const std::string& line : failure.lines) {
        report(line);
    }
}

int exit_code(const Failure& failure) {
    report(failure);
    return static_cast<int>(failure.status);
}

}  // namespace zav_shm::centerd
