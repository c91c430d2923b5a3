// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

#include "apps/trace/trace_reader.h"

namespace zav_shm::tool {

/// What is in a trace, summed up while it is read.
class Trace_Account {
public:
    explicit Trace_Account(const std::vector<trace::Stream_Name>& names);

    void add(const trace::Trace_Record& record);

    /// A table of the streams.
    std::string table() const;

    /// A list of the streams.
    Json::Value json() const;

    std::uint64_t frames() const;
    std::uint64_t payload_bytes() const;

    /// From the first frame to the last one.
    double seconds() const;

private:
    struct Stream {
        std::string title;
        std::uint64_t frames = 0;
        std::uint64_t key_frames = 0;
        std::uint64_t bytes = 0;
        std::uint64_t foreign = 0;
        std::uint64_t producers = 0;     // instances: one more for each restart
        std::uint64_t missing = 0;       // sequence numbers of which there is no frame
        Frame_Losses losses;             // as the capture saw them
        ZAV_SHM_Frame_Header last = {};  // of ours
        std::uint64_t first_sequence = 0;
        std::int64_t first_ns = 0;
        std::int64_t last_ns = 0;
    };

    static void add_frame(Stream& stream, const trace::Trace_Record& record);
    static double seconds_of(const Stream& stream);

    std::vector<Stream> streams_;
};

}  // namespace zav_shm::tool
