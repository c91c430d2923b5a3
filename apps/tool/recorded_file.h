// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "apps/tool/frame_index.h"
#include "apps/tool/recorded_form.h"
#include "apps/tool/recorded_frames.h"
#include "apps/tool/recording_target.h"

namespace zav_shm::tool {

/// One file of frames with its index. What fails ends the file behind its last whole frame.
class Recorded_File : public Recording_Target {
public:
    struct Names {
        std::string file;   // "-" is standard output
        std::string index;  // empty: none
    };

    Recorded_File(const Names& names, bool sync, int standard_output, const Stop_Signal& stop);

    std::optional<Problem> open(Output_File::Clock::time_point end) override;
    std::optional<Problem> begin() override;
    bool write(int stream, const Received_Frame& frame) override;
    bool flush_if_due() override;
    std::optional<Problem> close() override;
    Recorded_Totals totals() const override { return recorded_.totals(); }
    std::string title() const override { return file_.title(); }

private:
    bool note(bool written);
    Problem write_problem() const;
    Problem close_problem(int error) const;
    std::string amount() const;

    const bool sync_;
    Output_File file_;
    Frame_Index index_;
    Recorded_Form form_;
    Recorded_Frames recorded_;
    std::optional<int> write_error_;  // errno of the first write that failed
};

}  // namespace zav_shm::tool
