// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/center_request.h"
#include "apps/tool/commands.h"
#include "apps/tool/trigger_pipe.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::tool {

Exit_Status run(const Trigger_Command_Options& options, const Standard_Output& output) {
    const std::string title =
        options.all ? options.name : channel_text(options.name, options.channel, options.stream);
    const auto end =
        options.all
            ? std::nullopt
            : std::optional(channel_file_name(options.name, options.channel, options.stream));
    const std::string folder = rings_folder(options.folder);
    const Triggered done = trigger_recorders(folder, options.name, end);
    for (const std::string& problem : done.problems) {
        complain(problem);
    }
    if (done.recorders == 0) {
        return report({Exit_Status::input_output,
                       "no recorder of " + title + " waits for triggers in " + folder +
                           "; start one with zav-shm record --trigger command"});
    }
    const std::string count = std::to_string(done.recorders);
    const Exit_Status status =
        write_to(output, "triggered " + title + ": " + count +
                             (done.recorders == 1 ? " recorder\n" : " recorders\n"));
    return done.problems.empty() ? status : Exit_Status::input_output;
}

}  // namespace zav_shm::tool
