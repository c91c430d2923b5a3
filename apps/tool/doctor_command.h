// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "apps/tool/command.h"

namespace zav_shm::tool {

std::unique_ptr<Command> doctor_command(CLI::App& app);

}  // namespace zav_shm::tool
