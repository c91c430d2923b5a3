// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "apps/tool/options.h"
#include "apps/tool/problem.h"
#include "apps/tool/series_file.h"
#include "apps/tool/standard_output.h"

// The commands. Each writes what it is for to `output`, everything else to standard error, and
// returns what the program exits with.

namespace zav_shm::tool {

Exit_Status run(const Publish_Options& options, const Standard_Output& output);
Exit_Status run(const Record_Options& options, const Standard_Output& output);
Exit_Status run(const Watch_Options& options, const Standard_Output& output);
Exit_Status run(const Status_Options& options, const Standard_Output& output);
Exit_Status run(const Names_Options& options, const Standard_Output& output);
Exit_Status run(const Pair_Options& options, const Standard_Output& output);
Exit_Status run(const Kick_Options& options, const Standard_Output& output);
Exit_Status run(const Query_Options& options, const Standard_Output& output);
Exit_Status run(const Trigger_Command_Options& options, const Standard_Output& output);
Exit_Status run(const Capture_Options& options, const Standard_Output& output);
Exit_Status run(const Replay_Options& options, const Standard_Output& output);
Exit_Status run(const Trace_Options& options, const Standard_Output& output);
Exit_Status run(const Doctor_Options& options, const Standard_Output& output);
Exit_Status run(const Top_Options& options, const Standard_Output& output);

/// As run(), with files of another form.
Exit_Status record_series(const Record_Options& options, const Standard_Output& output,
                          const Series_Form_Maker& make_form);

}  // namespace zav_shm::tool
