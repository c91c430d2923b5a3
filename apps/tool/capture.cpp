// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/commands.h"
#include "apps/tool/traffic_capture.h"

namespace zav_shm::tool {

Exit_Status run(const Capture_Options& options, const Standard_Output& output) {
    const Stop_Signal stop;
    Traffic_Capture capture(options, output.descriptor(), stop);
    if (const auto problem = capture.open()) {
        return report(*problem);
    }
    capture.run();
    const auto problem = capture.close();
    const Exit_Status status = capture.tell();
    return problem ? report(*problem) : status;
}

}  // namespace zav_shm::tool
