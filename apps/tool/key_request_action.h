// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace zav_shm::tool {

/// What `publish` does when a reader asks for a key frame: as a program cannot turn to an encoder
/// that it does not know, it tells a process or writes to a descriptor.
struct Key_Request_Action {
    enum class Kind { none, signal, descriptor };
    Kind kind = Kind::none;
    pid_t process = 0;
    int signal = 0;
    int descriptor = -1;
};

/// Reads "signal:PID:USR1" or "fd:N".
std::optional<Key_Request_Action> parse_key_request_action(const std::string& text);

/// What is wrong with such a text, or nothing. A descriptor has to be open for writing by now.
std::string key_request_action_mistake(const std::string& text);

/// Tells the process, or writes the line "key_frame" to the descriptor; one that is full is not
/// waited for.
///
/// @return what went wrong, or nothing.
std::string carry_out(const Key_Request_Action& action);

}  // namespace zav_shm::tool
