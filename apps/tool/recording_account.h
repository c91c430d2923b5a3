// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "apps/tool/gap_finder.h"
#include "apps/tool/options.h"
#include "apps/tool/problem.h"
#include "apps/tool/recording_target.h"
#include "frame/frame_counters.h"

namespace zav_shm::tool {

/// What is to be told of a recording: its flaws as they come, and all of it at the end.
class Recording_Account {
public:
    explicit Recording_Account(const Record_Options& options) : options_(options) {}

    /// A frame is about to be written.
    ///
    /// @param gap    lies before it
    /// @param input  where it comes from, as messages name it
    /// @param file   where it goes, likewise
    void note(const Received_Frame& frame, const Gap_Finder::Gap& gap, const std::string& input,
              const std::string& file);

    /// It was written.
    void note_written(const Received_Frame& frame);

    /// Writes the account to standard error.
    ///
    /// @param more  further figures, such as " switches=2"
    /// @return what it means for the exit status
    Exit_Status tell(const Recorded_Totals& totals, const Subscriber_Counters& sum,
                     const std::string& more) const;

private:
    void tell_gap(const Received_Frame& frame, const Gap_Finder::Gap& gap,
                  const std::string& input);
    void tell_change_of_codec(const Received_Frame& frame, const std::string& file);

    const Record_Options& options_;
    std::uint64_t gaps_ = 0;     // places in the files where frames are missing or may be
    std::uint64_t damaged_ = 0;  // by --verify-synthetic
    std::uint64_t codec_changes_ = 0;
    std::uint32_t codec_ = 0;  // of the frame noted last
};

}  // namespace zav_shm::tool
