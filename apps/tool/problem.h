// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zav_shm::tool {

/// What the program exits with. docs/tool.md has the list for users.
enum class Exit_Status {
    ok = 0,
    incomplete = 1,  // frames were lost under --strict, refused for their length, or damaged
    usage = 2,
    no_center = 3,
    refused = 4,       // by the center
    input_output = 5,  // a file or pipe
    system = 6         // control queues or shared memory cannot be used, for want of the right or
                       // room, or as another process has the stream
};

/// Why a command ends, in one line that names thing, value, limit and what to do.
struct Problem {
    Exit_Status status = Exit_Status::ok;
    std::string text;
};

/// Logs a warning: it goes on.
void complain(const std::string& text);

/// Logs the problem as an error.
///
/// @return the status to end with.
Exit_Status report(const Problem& problem);

/// "CAM_LOOP/0/1", as in the messages of the system.
std::string channel_text(const std::string& name, int channel, int stream);

}  // namespace zav_shm::tool
