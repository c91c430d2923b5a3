// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "apps/tool/command.h"

namespace zav_shm::tool {

/// `zav-shm capture`, `replay` and `trace`.
void add_trace_commands(CLI::App& app, Commands& commands);

}  // namespace zav_shm::tool
