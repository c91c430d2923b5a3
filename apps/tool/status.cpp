// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "apps/tool/center_health.h"
#include "apps/tool/center_request.h"
#include "apps/tool/commands.h"
#include "apps/tool/status_file.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

Exit_Status run(const Status_Options& options, const Standard_Output& output) {
    if (options.ask_center) {
        Json::Value request;
        request[control::field::command] = control::command::query_status;
        if (const auto problem = tell_center(request, options.wait)) {
            return report(*problem);
        }
    }
    const std::string path = status_path(options.folder);
    auto found = read_center_status(path);
    if (const auto* problem = std::get_if<Problem>(&found)) {
        return report(*problem);
    }
    auto& status = std::get<Center_Status>(found);
    const auto trouble = trouble_with(status, path, options.wait);
    const Exit_Status written =
        write_to(output, options.json ? json_of(status, options.folder) : table_of(status));
    return trouble ? report(*trouble) : written;
}

}  // namespace zav_shm::tool
