// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

/// Tests of a cross build run under a user-mode emulator, and so have the programs to that they
/// start: the kernel does not know their format. All of that is here, and nothing of it in a native
/// build.

/// The command as it can be started. The program of this build in it, if there is one, gets the
/// emulator before it, and a library that was to be preloaded is given to the emulator: its own
/// dynamic linker has no use for it. Programs of the machine, such as a shell in front, stay.
std::vector<std::string> startable(const std::vector<std::string>& command);
