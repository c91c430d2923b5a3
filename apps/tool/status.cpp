// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "apps/tool/center_request.h"
#include "apps/tool/commands.h"
#include "apps/tool/json_text.h"
#include "apps/tool/status_file.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

// The file may be there without anybody behind it: a killed center leaves it.
std::optional<Problem> trouble_of(const Center_Status& status, const std::string& path) {
    const std::string age = std::to_string(status.age.count() / 1000) + " s old";
    if (!status.is_alive) {
        return Problem{Exit_Status::no_center, "the center is gone: process " +
                                                   std::to_string(count_at(status.content, "pid")) +
                                                   " does not exist, and " + path + " is " + age};
    }
    if (status.is_stale()) {
        return Problem{Exit_Status::no_center,
                       "the center hangs: " + path + " is " + age + ", it should be 1 s at most"};
    }
    return {};
}

}  // namespace

Exit_Status run(const Status_Options& options, const Standard_Output& output) {
    if (options.ask_center) {
        Json::Value request;
        request[control::field::command] = control::command::query_status;
        if (const auto problem = tell_center(request, options.wait)) {
            return report(*problem);
        }
    }
    const std::string path = status_path(options.folder);
    const auto found = read_center_status(path);
    if (const auto* problem = std::get_if<Problem>(&found)) {
        return report(*problem);
    }
    const auto& status = std::get<Center_Status>(found);
    const Exit_Status written = write_to(output, options.json ? json_of(status) : table_of(status));
    if (const auto trouble = trouble_of(status, path)) {
        return report(*trouble);
    }
    return written;
}

}  // namespace zav_shm::tool
