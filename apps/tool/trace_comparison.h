// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/trace/trace_reader.h"

namespace zav_shm::tool {

/// Whether two traces hold the same traffic, frame by frame in each stream.
///
/// What goes with an instance of a publisher or a capture is not compared: which epoch a frame is
/// of (but where another one begins is), when it was published and received, what was lost on the
/// way to the capture (but a missing sequence number is a difference), and in which order frames of
/// different streams stand. Producers may have other names: streams are matched by channel, stream
/// and name in this order.
class Trace_Comparison {
public:
    /// The sources have been opened as traces before.
    Trace_Comparison(const trace::Trace_Source& one, const trace::Trace_Source& other)
        : one_(one), other_(other) {}

    /// @return the first difference; nothing when there is none.
    std::optional<std::string> find_difference();

    std::size_t streams() const { return streams_; }
    std::uint64_t frames() const { return frames_; }

private:
    std::optional<std::string> compare_streams(std::uint16_t number, std::uint16_t other_number,
                                               const std::string& title);

    const trace::Trace_Source& one_;
    const trace::Trace_Source& other_;
    std::size_t streams_ = 0;   // compared so far
    std::uint64_t frames_ = 0;  // that are equal
};

}  // namespace zav_shm::tool
