// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// The history ring, version 1: one file that one writer fills and any number of readers map
// read-only. A record is a run of bytes with a key flag and two times; the ring knows nothing of
// what is in it. Device byte order; the same for 32- and 64-bit processes.
//
//   the file     header (4096 bytes) | index (index_count entries) | records (data_bytes)
//
//   off size field          unit    rule
//     0   4  magic          -       "ZAVR"
//     4   2  version        -       1
//     6   2  header_bytes   bytes   4096: where the index begins
//     8   4  index_count    -       entries of the index, a power of two
//    12   4  data_offset    bytes   from the begin of the file to the first record
//    16   4  data_bytes     bytes   the history, and room for one record of the greatest size
//    20   4  record_max     bytes   the greatest record
//    24   8  epoch          -       random per writer, never 0
//    32   8  created_ns     ns      CLOCK_MONOTONIC
//    40   4  writer_pid     -       as the writer sees itself
//    64   4  head           -       number of the newest whole record; the futex word
//    72   8  bytes          bytes   of all records so far, for displays; 0 of a writer that does
//    not
//                                   count them. On a 32-bit processor it may be seen half written,
//                                   once in 2^32 bytes
//   128   4  tail           -       number of the oldest record whose bytes and entry are intact
//   132   4  state          -       0 live, 1 closed in order, 2 left by a writer that was killed
//                                  and has a successor: it is the successor that says so
//   192   4  awaited        -       the number at which the writer waits for its slowest reader to
//                                   be, 0 while it does not wait; it sleeps on this word
//
// All above `head` is constant from before the file has its name. `head`, `tail` and `awaited` have
// cache lines of their own; `bytes`, which is stored just before `head`, lies with it, and `state`,
// which changes once, with `tail`. The words are of 32 bits,
// since a load of 64 bits may be done by writing where the processor has none, and readers map
// read-only.
//
// Numbers. Records are numbered from 1 without a gap. `head` and `tail` are the lower halves of
// such numbers and are compared by their distance, as whole numbers that wrap. head - tail + 1 is
// how many records there are: 0 before the first one, when head is 0 and tail 1.
//
// Index entry of record n, at n % index_count:
//
//   off size field          unit    rule
//     0   4  offset         bytes   from data_offset to the record; a multiple of 64
//     4   4  length         bytes   0 .. record_max
//     8   4  flags          -       1 key: reading may begin here; the other bits are the writer's
//    12   4  number_high    -       upper half of the record's number
//    16   8  pts_ns         ns      the writer's own time of what is in the record
//    24   8  time_ns        ns      CLOCK_MONOTONIC when the writer began the record
//
// Writer of record n:                          Reader of record n:
//   1 tail = past all that 3 and 4 destroy       1 head, acquire: is n there?
//   2 release fence                              2 tail, acquire: is n there still?
//   3 fill the record                            3 copy the entry, once; check the copy
//   4 fill the entry                             4 use the record
//   5 head = n, release                          5 acquire fence
//   6 wake who sleeps on head                    6 tail: is n there still?
//
// Whatever step 3 or 4 of a reader saw of a newer record was stored behind the writer's fence; so
// step 6, behind the reader's fence, sees the tail that was moved before it, and n is beyond reach.
// Only where step 6 finds n in reach may its bytes be believed; only then is a bad entry a writer's
// fault. Step 5 of the writer makes record and entry visible to step 2 and on of a reader. Step 1
// of the writer is a release, too: `tail` is at most one ahead of a `head` that is loaded behind
// it, and one that is further ahead is a writer's fault.
//
// The positions of records grow without end and are the writer's own affair: record n begins at
// position p, which lies at p % data_bytes, and a record that would cross the end of the data
// begins with the next lap. A record is intact while the newest one ends not more than data_bytes
// behind its begin. Comparing ranges of bytes instead is wrong: the end of a lap that was skipped
// holds older records, which would keep `tail` back while newer ones are overwritten.

namespace zav_shm {

inline constexpr std::uint16_t ring_version = 1;
inline constexpr std::uint32_t ring_header_bytes = 4096;
inline constexpr std::uint32_t ring_record_alignment = 64;
inline constexpr std::uint32_t ring_index_min = 4;
inline constexpr std::uint32_t ring_index_max = 1U << 22U;

namespace ring_flag {
inline constexpr std::uint32_t key = 1;
}

namespace ring_state {
inline constexpr std::uint32_t live = 0;
inline constexpr std::uint32_t closed = 1;
inline constexpr std::uint32_t succeeded = 2;
}  // namespace ring_state

/// The constant part of a ring's header.
struct Ring_Facts {
    char magic[4] = {'Z', 'A', 'V', 'R'};
    std::uint16_t version = ring_version;
    std::uint16_t header_bytes = ring_header_bytes;
    std::uint32_t index_count = 0;
    std::uint32_t data_offset = 0;
    std::uint32_t data_bytes = 0;
    std::uint32_t record_max = 0;
    std::uint64_t epoch = 0;
    std::int64_t created_ns = 0;
    std::uint32_t writer_pid = 0;
    std::uint32_t reserved = 0;
};
static_assert(sizeof(Ring_Facts) == 48);
static_assert(offsetof(Ring_Facts, index_count) == 8);
static_assert(offsetof(Ring_Facts, record_max) == 20);
static_assert(offsetof(Ring_Facts, epoch) == 24);
static_assert(offsetof(Ring_Facts, writer_pid) == 40);
static_assert(std::is_trivially_copyable_v<Ring_Facts>);

inline constexpr std::size_t ring_head_offset = 64;
inline constexpr std::size_t ring_bytes_offset = 72;
inline constexpr std::size_t ring_tail_offset = 128;
inline constexpr std::size_t ring_state_offset = 132;
inline constexpr std::size_t ring_awaited_offset = 192;

struct Ring_Entry {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    std::uint32_t flags = 0;
    std::uint32_t number_high = 0;
    std::int64_t pts_ns = 0;
    std::int64_t time_ns = 0;
};
static_assert(sizeof(Ring_Entry) == 32);
static_assert(offsetof(Ring_Entry, number_high) == 12);
static_assert(offsetof(Ring_Entry, pts_ns) == 16);
static_assert(offsetof(Ring_Entry, time_ns) == 24);
static_assert(std::is_trivially_copyable_v<Ring_Entry>);

/// How far number `a` is ahead of number `b`, both lower halves; below 0 when it is behind.
constexpr std::int32_t ring_distance(std::uint32_t a, std::uint32_t b) {
    return static_cast<std::int32_t>(a - b);
}

}  // namespace zav_shm
