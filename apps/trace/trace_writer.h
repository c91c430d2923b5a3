// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "apps/trace/trace_format.h"

namespace zav_shm::trace {

/// Writes a trace, record by record, to wherever its owner puts bytes.
///
/// Threads  one.
/// Errors   what the sink returns: after a false nothing is written any more, and all operations
///          return false. What stands before offset() - whole records - is a trace without an end.
/// Crash    the records that the sink has put into a file are a trace without an end.
class Trace_Writer {
public:
    /// Takes a whole record, or the file header.
    using Sink = std::function<bool(std::span<const std::byte>)>;

    /// A frame as a reader got it.
    struct Frame {
        const ZAV_SHM_Frame_Header& header;
        std::span<const std::byte> payload;
        bool foreign = false;  // its producer writes no frame header
        Moment received;
    };

    Trace_Writer(Sink sink, const File_Header& header) : sink_(std::move(sink)), header_(header) {}

    /// The file header and the streams, which have the numbers 0, 1 and so on.
    ///
    /// @param streams  streams_max at most, each name within name_bytes_max
    bool begin(const std::vector<Stream_Name>& streams);

    bool add(std::uint16_t stream, const Frame& frame);

    /// What is missing before the stream's next frame.
    bool add(std::uint16_t stream, const Frame_Losses& losses, const Moment& received);

    /// The last index, and the end.
    bool finish(const Moment& now);

    /// Behind the last record that the sink has taken.
    std::uint64_t offset() const { return offset_; }
    std::uint64_t frames() const { return frames_; }

private:
    void begin_record();
    bool write_record(Record_Head head);
    bool write_index(const Moment& now);

    const Sink sink_;
    const File_Header header_;
    bool failed_ = false;
    Bytes record_;  // that is being written: room for its head, and its body
    Bytes head_;
    std::uint64_t offset_ = 0;
    std::uint64_t frames_ = 0;
    std::uint64_t last_index_ = 0;  // its offset; 0 before the first
    std::uint64_t indexed_to_ = 0;  // behind the last index
    std::vector<Index_Entry> entries_;
};

}  // namespace zav_shm::trace
