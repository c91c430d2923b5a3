// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zav_shm {

/// The text on one line that no terminal and no reader of logs takes for something else: control
/// characters, line ends among them, and bytes that are no UTF-8 become "\x1b". Names and paths
/// come from files, command lines and the center, and whatever is printed of them goes through
/// this.
std::string printable(const std::string& text);

}  // namespace zav_shm
