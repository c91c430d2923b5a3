// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "apps/trace/trace_writer.h"

/// Traces in memory, for tests: whatever the writer writes, and where each record begins.
class Trace_Maker {
public:
    explicit Trace_Maker(const std::vector<zav_shm::trace::Stream_Name>& streams =
                             {{"CAM_LOOP", 0, 0}, {"CAM_LOOP", 0, 1}})
        : writer_([this](std::span<const std::byte> record) { return take(record); }, {77, {}}) {
        writer_.begin(streams);
    }
    Trace_Maker(const Trace_Maker&) = delete;
    Trace_Maker& operator=(const Trace_Maker&) = delete;

    /// A frame of `bytes` bytes that is published at `ms` and received 5 ms later.
    void add(std::uint16_t stream, std::int64_t ms, std::uint16_t flags = 0,
             std::size_t payload_bytes = 5, bool foreign = false) {
        ZAV_SHM_Frame_Header header = {};
        header.payload_length = static_cast<std::uint32_t>(payload_bytes);
        if (!foreign) {
            header.magic = zav_shm::frame_magic;
            header.version = zav_shm::frame_version;
            header.flags = flags;
            header.sequence = ++sequence_;
            header.epoch = epoch;
            header.publish_ns = ms * 1'000'000;
            header.pts_ns = pts_ns != 0 ? pts_ns : -ms;
            header.rate_num = 25;
        }
        const std::vector<std::byte> payload(payload_bytes, static_cast<std::byte>(ms & 0xFF));
        writer_.add(stream, {header, payload, foreign, at(ms + 5)});
    }

    void add_loss(std::uint16_t stream, std::int64_t ms) {
        writer_.add(stream, {.overtaken = 3, .skipped = 1}, at(ms));
    }

    /// So many sequence numbers have no frame.
    void leave_out(std::uint64_t frames) { sequence_ += frames; }

    void finish() { writer_.finish(at(99'999)); }

    std::int64_t pts_ns = 0;     // of the next frames; 0: the moment, negative
    std::uint64_t epoch = 4711;  // of the next frames
    std::vector<std::byte> bytes;
    std::vector<std::size_t> begins;  // of the header, and of each record

private:
    static zav_shm::trace::Moment at(std::int64_t ms) { return {ms * 1'000'000, ms * 1'000'000}; }

    bool take(std::span<const std::byte> record) {
        begins.push_back(bytes.size());
        bytes.insert(bytes.end(), record.begin(), record.end());
        return true;
    }

    zav_shm::trace::Trace_Writer writer_;
    std::uint64_t sequence_ = 0;
};
