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

}  // namespace

Exit_Status record_series(const Record_Options& options, const Standard_Output& output,
                          const Series_Form_Maker& make_form) {
    const Stop_Signal stop(Stop_Signal::Hangup::is_left_alone);
    if (options.is_event_recording()) {
        Event_Recording recording(options, make_form(stop), output.descriptor(), stop);
        return carry_out(recording);
    }
    Recording recording(
        options, std::make_unique<File_Series>(options, make_form(stop), output.descriptor()),
        stop);
    return carry_out(recording);
}

Exit_Status run(const Record_Options& options, const Standard_Output& output) {
    const int standard_output = output.descriptor();
    if (options.is_series()) {
        return record_series(options, output, [&](const Stop_Signal& stop) {
            return std::make_unique<Recorded_Files>(options.sync, standard_output, stop);
        });
    }
    const Stop_Signal stop;
    const Recorded_File::Names names{.file = options.file, .index = options.index};
    Recording recording(
        options, std::make_unique<Recorded_File>(names, options.sync, standard_output, stop), stop);
    return carry_out(recording);
}

}  // namespace zav_shm::tool
