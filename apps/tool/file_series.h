// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/tool/caught_signals.h"
#include "apps/tool/options.h"
#include "apps/tool/series_file.h"

namespace zav_shm::tool {

/// Files of one recording in one folder, each of which begins where a decoder may begin. A new one
/// begins when the present one is long or large enough or cannot hold what comes, when SIGHUP has
/// come, and when it is told to: always at the next key frame or recovery point.
///
/// A file is called NAME.part while it is written and NAME once it is finished, so that whoever
/// looks for new files never takes a half one. Its index is NAME.index from the beginning. A file
/// that is there already is never replaced: the new one gets a number. A finished file's name is
/// a line on standard output, unless nobody takes it from there.
///
/// Crash    of the process leaves NAME.part with all but the frames of the last second.
/// Full     medium: the file is cut behind its last whole frame and finished; without any it is
///          removed. begin_file() starts anew.
class File_Series : public Recording_Target {
public:
    /// @param form  of its files
    File_Series(const Record_Options& options, std::unique_ptr<Series_Form> form,
                int standard_output);
    ~File_Series() override;
    File_Series(const File_Series&) = delete;
    File_Series& operator=(const File_Series&) = delete;

    std::optional<Problem> open(Output_File::Clock::time_point end) override;
    std::optional<Problem> begin() override { return {}; }
    bool write(int stream, const Received_Frame& frame) override;
    bool flush_if_due() override;
    std::optional<Problem> close() override;
    Recorded_Totals totals() const override;
    std::string title() const override;

    /// The next frame begins a file, also after a write that failed.
    ///
    /// @param named_after_ns  since 1970, instead of the time of that frame; the files behind it
    /// are
    ///                        named after no earlier time
    void begin_file(std::int64_t named_after_ns);

    /// Finished, with at least one frame.
    std::uint64_t files() const { return files_; }

private:
    bool is_due(const Received_Frame& frame) const;
    bool start_file(const Received_Frame& frame);
    std::optional<Problem> finish_file();
    std::string free_name(const std::string& name) const;
    std::string path_of(const std::string& name) const { return options_.directory + "/" + name; }
    bool give_name();
    void tell_finished(const std::string& path);

    const Record_Options& options_;
    const std::unique_ptr<Series_Form> form_;
    const int standard_output_;
    const Caught_Signals hangup_;
    std::unique_ptr<Series_File> file_;
    std::string name_;                            // of the present file, without ".part"
    std::optional<std::int64_t> named_after_ns_;  // of the next file
    std::int64_t not_before_ns_ = 0;              // of those behind it
    bool next_is_wanted_ = false;                 // by SIGHUP
    std::int64_t first_ns_ = 0;                   // moment of the present file's first frame
    Recorded_Totals finished_;
    std::uint64_t files_ = 0;
    std::optional<Problem> problem_;  // the first one since begin_file()
    bool told_no_reader_ = false;
};

}  // namespace zav_shm::tool
