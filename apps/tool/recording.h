// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/tool/entry_gate.h"
#include "apps/tool/frame_index.h"
#include "apps/tool/frame_input.h"
#include "apps/tool/options.h"
#include "apps/tool/output_file.h"
#include "apps/tool/recorded_frames.h"
#include "apps/tool/stop_signal.h"
#include "apps/tool/stream_switch.h"

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
    bool take(std::size_t input, std::chrono::milliseconds timeout);
    void pass_on(std::size_t input);
    void write(std::size_t input, const Received_Frame& frame);
    void tell_gap(const std::string& consumer, const Entry_Gate::Gap& gap);
    void tell_what_is_waited_for();
    void tell_change_of_codec(const Received_Frame& frame);
    void note(bool written);
    Problem write_problem() const;
    Problem close_problem(int error) const;
    std::string amount() const;

    const Record_Options& options_;
    const Stop_Signal& stop_;
    std::vector<std::unique_ptr<Frame_Input>> inputs_;
    std::vector<Entry_Gate> gates_;  // one for each input
    Output_File file_;
    Frame_Index index_;
    Recorded_Frames recorded_;
    Stop_Signal::Clock::time_point begin_;
    Stream_Switch switch_;
    Received_Frame frame_;
    std::optional<int> write_error_;  // errno of the first write that failed

    std::uint64_t skipped_ = 0;  // left out on the way to a key frame or recovery point
    std::uint64_t gaps_ = 0;     // places in the file where frames are missing or may be
    bool told_waiting_ = false;  // of the present wait
    std::uint64_t damaged_ = 0;  // by --verify-synthetic
    std::uint64_t codec_changes_ = 0;
    std::uint32_t codec_ = 0;  // of the frame written last
};

}  // namespace zav_shm::tool
