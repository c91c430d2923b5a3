// SPDX-License-Identifier: Apache-2.0
#include <memory>

#include "apps/tool/commands.h"
#include "apps/tool/event_recording.h"
#include "apps/tool/file_series.h"
#include "apps/tool/recorded_file.h"
#include "apps/tool/recording.h"

namespace zav_shm::tool {

namespace {

template <class Any_Recording>
Exit_Status carry_out(Any_Recording& recording) {
    if (const auto problem = recording.open()) {
        return report(*problem);
    }
    recording.run();
    const auto problem = recording.close();
    const Exit_Status status = recording.tell();
    return problem ? report(*problem) : status;
}

std::unique_ptr<Recording_Target> target_of(const Record_Options& options, int standard_output,
                                            const Stop_Signal& stop) {
    if (options.is_series()) {
        return std::make_unique<File_Series>(options, standard_output, stop);
    }
    const Recorded_File::Names names{.file = options.file, .index = options.index};
    return std::make_unique<Recorded_File>(names, options.sync, standard_output, stop);
}

}  // namespace

Exit_Status run(const Record_Options& options, const Standard_Output& output) {
    const Stop_Signal stop(options.is_series() ? Stop_Signal::Hangup::is_left_alone
                                               : Stop_Signal::Hangup::ends);
    if (options.is_event_recording()) {
        Event_Recording recording(options, output.descriptor(), stop);
        return carry_out(recording);
    }
    Recording recording(options, target_of(options, output.descriptor(), stop), stop);
    return carry_out(recording);
}

}  // namespace zav_shm::tool
