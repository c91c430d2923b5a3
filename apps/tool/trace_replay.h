// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "apps/tool/options.h"
#include "apps/tool/replay_clock.h"
#include "apps/tool/replayed_stream.h"
#include "apps/tool/stop_signal.h"
#include "apps/trace/trace_source.h"

namespace zav_shm::tool {

/// One run of `zav-shm replay`: the frames of all streams of a trace in the order of their times,
/// and an account of all.
class Trace_Replay {
public:
    Trace_Replay(const Replay_Options& options, const Stop_Signal& stop);

    std::optional<Problem> open();

    /// Replays to the end of the trace, to damage in it, until a signal comes, or a limit of the
    /// options is reached.
    std::optional<Problem> run();

    /// Ends the streams, and writes the account to standard error.
    Exit_Status close();

private:
    using Clock = Replay_Clock::Clock;

    std::optional<Problem> make_streams(const std::vector<trace::Stream_Name>& names);
    void find_begins();
    void tell_begin(std::int64_t first_ns);
    Replayed_Stream* earliest();
    bool begin_next_lap();
    bool wait_for(std::int64_t moment_ns);
    bool is_over() const;
    void tell_end();

    const Replay_Options& options_;
    const Stop_Signal& stop_;
    const std::string title_;
    trace::Trace_File file_;
    std::vector<std::unique_ptr<Replayed_Stream>> streams_;
    std::vector<std::uint64_t> begins_;  // offsets, of each stream
    Replay_Clock clock_;
    Clock::time_point opened_{};

    std::uint64_t frames_ = 0;
    std::uint64_t laps_ = 0;         // whole ones
    std::uint64_t lap_frames_ = 0;   // of the present lap
    std::int64_t lap_first_ns_ = 0;  // moments of its first and last frame
    std::int64_t lap_last_ns_ = 0;
    std::chrono::nanoseconds later_{0};  // the present lap than the first one
    std::chrono::nanoseconds late_max_{0};
    bool is_damaged_ = false;
};

}  // namespace zav_shm::tool
