// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/problem.h"

#include "apps/log/log.h"

namespace zav_shm::tool {

void complain(const std::string& text) { write_log(Log_Level::warning, text); }

Exit_Status report(const Problem& problem) {
    write_log(Log_Level::error, problem.text);
    return problem.status;
}

std::string channel_text(const std::string& name, int channel, int stream) {
    return name + "/" + std::to_string(channel) + "/" + std::to_string(stream);
}

}  // namespace zav_shm::tool
