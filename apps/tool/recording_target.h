// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "apps/tool/output_file.h"
#include "apps/tool/problem.h"
#include "frame/received_frame.h"

namespace zav_shm::tool {

/// What is whole in the files of a recording, and what was handed to them.
struct Recorded_Totals {
    /// Continues with what came into another file later.
    void add(const Recorded_Totals& next) {
        first_sequence = frames == 0 ? next.first_sequence : first_sequence;
        last_sequence = next.frames == 0 ? last_sequence : next.last_sequence;
        handed_over += next.handed_over;
        handed_over_bytes += next.handed_over_bytes;
        frames += next.frames;
        bytes += next.bytes;
        key_frames += next.key_frames;
        recovery_points += next.recovery_points;
    }

    std::uint64_t handed_over = 0;  // frames, whole in a file or not yet
    std::uint64_t handed_over_bytes = 0;
    std::uint64_t frames = 0;  // whole, as all below
    std::uint64_t bytes = 0;
    std::uint64_t key_frames = 0;
    std::uint64_t recovery_points = 0;
    std::uint64_t first_sequence = 0;
    std::uint64_t last_sequence = 0;
};

/// Where a recording's frames go: one file, or a series of them.
class Recording_Target {
public:
    virtual ~Recording_Target() = default;

    /// Makes sure that it can be written, and leaves what is there as it is.
    ///
    /// @param end  how long to wait for the reader of a named pipe.
    virtual std::optional<Problem> open(Output_File::Clock::time_point end) = 0;

    /// Once the stream is granted: empties what was there.
    virtual std::optional<Problem> begin() = 0;

    /// @return false when it could not be written, now or before; close() says why.
    virtual bool write(int stream, const Received_Frame& frame) = 0;

    /// Writes what has been held back for a second.
    ///
    /// @return as write()
    virtual bool flush_if_due() = 0;

    /// Ends it behind its last whole frame.
    ///
    /// @return what went wrong since begin().
    virtual std::optional<Problem> close() = 0;

    virtual Recorded_Totals totals() const = 0;

    /// The file that is written, as messages name it.
    virtual std::string title() const = 0;
};

/// A file that could not be written.
///
/// @param totals  what is whole in it
/// @param error   errno of the write
Problem write_problem(const Output_File& file, const Recorded_Totals& totals, int error);

/// One that the system has taken, which may be lost on the way to the medium.
Problem close_problem(const Output_File& file, const Recorded_Totals& totals, int error);

}  // namespace zav_shm::tool
