// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zav_shm::rtspd {

/// What the process ends with; those of the command-line tool, as far as they apply.
enum class Exit_Status {
    ok = 0,
    usage = 2,
    input_output = 5,  // a file of users or certificates
    system = 6         // the port, or the server's own parts
};

/// Why the server does not start, in one line that names thing, value and what to do.
struct Problem {
    Exit_Status status = Exit_Status::ok;
    std::string text;
};

}  // namespace zav_shm::rtspd
