// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/center_health.h"
#include "apps/tool/commands.h"
#include "apps/tool/json_text.h"
#include "apps/tool/name_lists.h"
#include "apps/tool/status_file.h"

namespace zav_shm::tool {

Exit_Status run(const Names_Options& options, const Standard_Output& output) {
    const std::string path = status_path(options.folder);
    auto found = read_center_status(path);
    if (const auto* problem = std::get_if<Problem>(&found)) {
        return report(*problem);
    }
    auto& status = std::get<Center_Status>(found);
    const auto trouble = trouble_with(status, path, options.wait);
    const auto names = names_of(status.content);
    if (!names) {
        return report({Exit_Status::input_output,
                       path + " lists no names: it is of zav-shm-centerd " +
                           text_at(status.content, "version") +
                           ", which is older than this command; query asks for one name"});
    }
    const Exit_Status written =
        write_to(output, options.json ? json_line(*names) + "\n" : text_of_names(*names));
    return trouble ? report(*trouble) : written;
}

}  // namespace zav_shm::tool
