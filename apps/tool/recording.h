// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "apps/tool/frame_input.h"
#include "apps/tool/gap_finder.h"
#include "apps/tool/options.h"
#include "apps/tool/recording_account.h"
#include "apps/tool/recording_target.h"
#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// One run of `zav-shm record`: frames from one stream, or from two in turn, into one file or a
/// series of files, and an account of all.
class Recording {
public:
    /// @param target  where the frames go
    Recording(const Record_Options& options, std::unique_ptr<Recording_Target> target,
              const Stop_Signal& stop);

    std::optional<Problem> open();

    /// Records until a signal comes, or a limit of the options is reached.
    void run();

    /// Writes what is still queued and closes the file.
    ///
    /// @return what could not be written
    std::optional<Problem> close();

    /// The account, on standard error, and what it means for the exit status.
    Exit_Status tell() const;

private:
    bool is_over() const;
    bool is_full() const;
    std::chrono::milliseconds time_to_look() const;
    bool take(std::chrono::milliseconds timeout);
    void write(const Received_Frame& frame, const Gap_Finder::Gap& gap);
    void change_stream_if_due();
    void tell_what_is_waited_for();

    const Record_Options& options_;
    const Stop_Signal& stop_;
    Frame_Input input_;
    std::array<Gap_Finder, 2> gap_finders_;  // one for each stream
    const std::unique_ptr<Recording_Target> target_;
    Recording_Account account_;
    Stop_Signal::Clock::time_point begin_;
    Received_Frame frame_;
    bool failed_ = false;  // to write; the target knows why

    // The wait for a key frame or recovery point: nothing while there is none.
    std::optional<Stop_Signal::Clock::time_point> waits_since_;
    std::uint64_t skipped_before_ = 0;  // frames left out before it
    bool told_waiting_ = false;

    std::size_t stream_ = 0;  // that the frame before was of, by its place in the options
    Stop_Signal::Clock::time_point stream_since_;
};

}  // namespace zav_shm::tool
