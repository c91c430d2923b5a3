// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recording_target.h"

namespace zav_shm::tool {

namespace {

std::string amount(const Recorded_Totals& totals) {
    return std::to_string(totals.frames) + " frames, " + std::to_string(totals.bytes) + " bytes";
}

}  // namespace

Problem write_problem(const Output_File& file, const Recorded_Totals& totals, int error) {
    return {Exit_Status::input_output, "cannot write to " + file.title() + " after " +
                                           amount(totals) + ": " + Output_File::cause(error)};
}

Problem close_problem(const Output_File& file, const Recorded_Totals& totals, int error) {
    return {Exit_Status::input_output, "cannot write " + file.title() +
                                           " down to the medium, which may lack a part of " +
                                           amount(totals) + ": " + Output_File::cause(error)};
}

}  // namespace zav_shm::tool
