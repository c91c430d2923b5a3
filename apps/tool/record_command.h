// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "apps/tool/command.h"

namespace zav_shm::tool {

/// `zav-shm record`, and what triggers its event recordings.
std::unique_ptr<Command> record_command(CLI::App& app);
std::unique_ptr<Command> trigger_command(CLI::App& app);

}  // namespace zav_shm::tool
