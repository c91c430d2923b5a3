// SPDX-License-Identifier: Apache-2.0
#include "apps/doctor/doctor.h"

#include "apps/doctor/report.h"
#include "apps/tool/commands.h"

namespace zav_shm::tool {

Exit_Status run(const Doctor_Options& options, const Standard_Output& output) {
    const doctor::Findings findings = doctor::examine({.folder = options.folder,
                                                       .configuration = options.configuration,
                                                       .silence = options.silence,
                                                       .version = ZAV_SHM_VERSION});
    const int status = doctor::exit_status_of(findings);
    const Exit_Status written =
        write_to(output, options.json ? doctor::json_of(findings, status)
                                      : doctor::text_of(findings, options.verbose));
    return written == Exit_Status::ok ? static_cast<Exit_Status>(status) : written;
}

}  // namespace zav_shm::tool
