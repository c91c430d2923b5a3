// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/commands.h"
#include "apps/tool/recording.h"

namespace zav_shm::tool {

Exit_Status run(const Record_Options& options, const Standard_Output& output) {
    const Stop_Signal stop;
    Recording recording(options, output.descriptor(), stop);
    if (const auto problem = recording.open()) {
        return report(*problem);
    }
    const auto problem = recording.run();
    const auto at_the_end = recording.close();
    const Exit_Status status = recording.tell();
    if (problem || at_the_end) {
        return report(problem ? *problem : *at_the_end);
    }
    return status;
}

}  // namespace zav_shm::tool
