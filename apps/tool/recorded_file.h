// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/tool/frame_index.h"
#include "apps/tool/recorded_form.h"
#include "apps/tool/recorded_frames.h"
#include "apps/tool/series_file.h"

namespace zav_shm::tool {

/// One file of frames with its index. What fails ends the file behind its last whole frame.
class Recorded_File : public Series_File {
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
    bool goes_on_with(const Received_Frame& /*frame*/) const override { return true; }

private:
    bool note(bool written);

    const bool sync_;
    Output_File file_;
    Frame_Index index_;
    Recorded_Form form_;
    Recorded_Frames recorded_;
    std::optional<int> write_error_;  // errno of the first write that failed
};

/// A series of them.
class Recorded_Files : public Series_Form {
public:
    Recorded_Files(bool sync, int standard_output, const Stop_Signal& stop)
        : sync_(sync), standard_output_(standard_output), stop_(stop) {}

    std::string extension(std::uint32_t codec) const override;
    std::unique_ptr<Series_File> make(const std::string& file,
                                      const std::string& index) const override;

private:
    const bool sync_;
    const int standard_output_;
    const Stop_Signal& stop_;
};

}  // namespace zav_shm::tool
