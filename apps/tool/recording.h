// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <optional>
#include <string>

#include "apps/tool/frame_index.h"
#include "apps/tool/frame_input.h"
#include "apps/tool/gap_finder.h"
#include "apps/tool/options.h"
#include "apps/tool/output_file.h"
#include "apps/tool/recorded_frames.h"
#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// One run of `zav-shm record`: frames from one stream, or from two in turn, into one file, and an
/// account of all.
class Recording {
public:
    Recording(const Record_Options& options, int standard_output, const Stop_Signal& stop);

    std::optional<Problem> open();

    /// Records until a signal comes, or a limit of the options is reached.
    std::optional<Problem> run();

    /// Writes what is still queued and closes the file.
    std::optional<Problem> close();

    /// The account, on standard error, and what it means for the exit status.
    Exit_Status tell() const;

private:
    bool is_over() const;
    bool is_full() const;
    std::chrono::milliseconds time_to_look() const;
    bool take(std::chrono::milliseconds timeout);
    void write(const Received_Frame& frame);
    void change_stream_if_due();
    void tell_gap(const Gap_Finder::Gap& gap);
    void tell_what_is_waited_for();
    void tell_change_of_codec(const Received_Frame& frame);
    void note(bool written);
    Problem write_problem() const;
    Problem close_problem(int error) const;
    std::string amount() const;

    const Record_Options& options_;
    const Stop_Signal& stop_;
    Frame_Input input_;
    std::array<Gap_Finder, 2> gap_finders_;  // one for each stream
    Output_File file_;
    Frame_Index index_;
    Recorded_Frames recorded_;
    Stop_Signal::Clock::time_point begin_;
    Received_Frame frame_;
    std::optional<int> write_error_;  // errno of the first write that failed

    // The wait for a key frame or recovery point: nothing while there is none.
    std::optional<Stop_Signal::Clock::time_point> waits_since_;
    std::uint64_t skipped_before_ = 0;  // frames left out before it
    bool told_waiting_ = false;

    std::size_t stream_ = 0;  // that the frame before was of, by its place in the options
    Stop_Signal::Clock::time_point stream_since_;
    std::uint64_t gaps_ = 0;     // places in the file where frames are missing or may be
    std::uint64_t damaged_ = 0;  // by --verify-synthetic
    std::uint64_t codec_changes_ = 0;
    std::uint32_t codec_ = 0;  // of the frame written last
};

}  // namespace zav_shm::tool
