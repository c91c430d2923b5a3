// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "apps/trace/trace_bytes.h"
#include "frame/frame_header.h"
#include "frame/received_frame.h"

// A trace, version 1: the frames of one or several streams as one reader got them, with their
// headers, payloads and times, and what it did not get. docs/trace.md tells users the same.
//
// A file header, and records behind each other. Nothing that was written is changed: a trace whose
// writer was killed holds all records that had reached the file. Integers have fixed sizes, the
// lowest byte first, at any offset.
//
// File header, 64 bytes:
//
//   off size field          unit    rule
//     0    8 magic          -       "ZAVTRACE"
//     8    2 version        -       1
//    10    2 header_bytes   -       64
//    12    4 reserved       -       0
//    16    8 id             -       random per trace
//    24    8 monotonic_ns   ns      CLOCK_MONOTONIC of the device when the capture began
//    32    8 utc_ns         ns      its wall clock at the same moment
//    40   20 reserved       -       0
//    60    4 checksum       -       CRC-32C of the 60 bytes before
//
// Record head, 40 bytes, in front of the record's body:
//
//     0    4 mark           -       "ZREC"
//     4    2 type           -       as below; a reader passes over types that it does not know
//     6    2 stream         -       number of the stream record, from 0; 65535 of no stream
//     8    4 flags          -       of a frame: 1 foreign, its producer writes no frame header
//    12    4 body_bytes     bytes
//    16    8 monotonic_ns   ns      when the reader had it; 0 to 2^60
//    24    8 utc_ns         ns      the same by the wall clock
//    32    4 body_checksum  -       CRC-32C of the body
//    36    4 checksum       -       CRC-32C of the 36 bytes before
//
// Bodies by type:
//
//   1 stream  channel u32, stream u32, the producer's name (1 to 31 bytes). All of them stand
//             before the first record of another type.
//   2 frame   the frame header of 128 bytes as in frame/frame_header.h, and the payload.
//   3 loss    what the reader did not get before the frame that follows, by cause: overtaken u64,
//             left_out u64, no_memory u64, dropped u64, skipped u64.
//   4 index   own offset u64, id of the trace u64, offset of the index before u64 (0: none),
//             count u32 (512 at most), reserved u32; for each frame since the index before, in the
//             file's order: offset u64, moment_ns i64, stream u16, flags u16 (1 a decoder may
//             begin here), reserved u32.
//   5 end     id of the trace u64, offset of the last index u64 (0: none), frames u64. The last
//             record of a trace that was closed in order.

namespace zav_shm::trace {

inline constexpr char magic[] = {'Z', 'A', 'V', 'T', 'R', 'A', 'C', 'E'};
inline constexpr std::uint16_t version = 1;
inline constexpr std::uint32_t record_mark = 0x4345525AU;  // "ZREC"

inline constexpr std::size_t file_header_bytes = 64;
inline constexpr std::size_t record_head_bytes = 40;
inline constexpr std::size_t frame_header_bytes = sizeof(ZAV_SHM_Frame_Header);
inline constexpr std::size_t loss_bytes = 40;
inline constexpr std::size_t index_fixed_bytes = 32;
inline constexpr std::size_t index_entry_bytes = 24;
inline constexpr std::size_t end_bytes = 24;

inline constexpr std::size_t streams_max = 256;
inline constexpr std::size_t name_bytes_max = 31;
inline constexpr std::size_t index_entries_max = 512;

/// An index comes at the latest behind so many bytes, so that one is found soon from the end of a
/// trace that was not closed.
inline constexpr std::uint64_t index_distance_bytes = std::uint64_t{16} << 20;

enum class Record_Type : std::uint16_t { stream = 1, frame = 2, loss = 3, index = 4, end = 5 };

inline constexpr std::uint16_t no_stream = 0xFFFF;

namespace record_flag {
inline constexpr std::uint32_t foreign = 1;
}
namespace index_flag {
inline constexpr std::uint16_t entry_point = 1;
}

/// No device runs for longer (36 years), and the sums of two such times fit.
inline constexpr std::int64_t monotonic_max_ns = std::int64_t{1} << 60;

/// One moment by both clocks of the device.
struct Moment {
    std::int64_t monotonic_ns = 0;
    std::int64_t utc_ns = 0;
};

struct File_Header {
    std::uint64_t id = 0;
    Moment begin;
};

/// Whose frames a stream has.
struct Stream_Name {
    std::string producer;
    std::uint32_t channel = 0;
    std::uint32_t stream = 0;

    /// "CAM_LOOP/0/1"
    std::string text() const;
    bool operator==(const Stream_Name&) const = default;
};

struct Record_Head {
    Record_Type type = Record_Type::end;
    std::uint16_t stream = no_stream;
    std::uint32_t flags = 0;
    std::uint32_t body_bytes = 0;
    Moment received;
    std::uint32_t body_checksum = 0;
};

struct Index_Entry {
    std::uint64_t offset = 0;  // of the frame's record
    std::int64_t moment_ns = 0;
    std::uint16_t stream = 0;
    std::uint16_t flags = 0;

    bool operator==(const Index_Entry&) const = default;
};

struct Index {
    std::uint64_t own_offset = 0;
    std::uint64_t id = 0;
    std::uint64_t before = 0;  // offset of the index before; 0: none
    std::vector<Index_Entry> entries;
};

struct End {
    std::uint64_t id = 0;
    std::uint64_t last_index = 0;
    std::uint64_t frames = 0;
};

/// When a frame was published, by which it is replayed: the time in its header, if that can be. A
/// foreign frame has none, and what a header says may be anything: then it is the time of arrival.
std::int64_t moment_of(const ZAV_SHM_Frame_Header& header, bool foreign, std::int64_t received_ns);

/// What an index says of a frame.
Index_Entry index_entry(std::uint64_t offset, std::uint16_t stream,
                        const ZAV_SHM_Frame_Header& header, bool foreign, std::int64_t received_ns);

// ---- to bytes, behind those that are there ----

void put(Bytes& bytes, const File_Header& header);
void put(Bytes& bytes, const Record_Head& head);
void put(Bytes& bytes, const Stream_Name& name);
void put(Bytes& bytes, const ZAV_SHM_Frame_Header& header);
void put(Bytes& bytes, const Frame_Losses& losses);
void put(Bytes& bytes, const Index& index);
void put(Bytes& bytes, const End& end);

// ---- from bytes; nothing when they do not have the form above ----

/// What is wrong with a file header, or the header.
struct Read_Header {
    File_Header header;
    std::string mistake;  // empty: none
};
Read_Header read_file_header(std::span<const std::byte> bytes);

std::optional<Record_Head> read_record_head(std::span<const std::byte> bytes);
std::optional<Stream_Name> read_stream_name(std::span<const std::byte> body);
std::optional<ZAV_SHM_Frame_Header> read_frame_header(std::span<const std::byte> body,
                                                      bool foreign);
std::optional<Frame_Losses> read_losses(std::span<const std::byte> body);
std::optional<Index> read_index(std::span<const std::byte> body);
std::optional<End> read_end(std::span<const std::byte> body);

}  // namespace zav_shm::trace
