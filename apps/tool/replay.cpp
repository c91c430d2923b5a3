// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/commands.h"
#include "apps/tool/trace_replay.h"

namespace zav_shm::tool {

Exit_Status run(const Replay_Options& options, const Standard_Output& /*output*/) {
    const Stop_Signal stop;
    Trace_Replay replay(options, stop);
    if (const auto problem = replay.open()) {
        return report(*problem);
    }
    const auto problem = replay.run();
    const Exit_Status status = replay.close();
    return problem ? report(*problem) : status;
}

}  // namespace zav_shm::tool
