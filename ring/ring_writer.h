// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ring/ring_memory.h"
#include "ring/writer_lock.h"

namespace zav_shm {

/// What a writer says of one record beside its bytes.
struct Record_Tags {
    std::uint32_t flags = 0;   // of ring_flag; the other bits are the writer's own
    std::int64_t pts_ns = 0;   // the writer's own time of what is in the record
    std::int64_t time_ns = 0;  // CLOCK_MONOTONIC when the record was begun
};

/// Fills a ring; waits for nobody, and knows of no reader.
///
///   Ring_Problem problem;
///   const auto ring = Ring_Writer::open("/dev/shm/shm/rings/CAM_LOOP_0_0", {4 << 20, 1 << 20},
///                                       problem);
///   const std::span<std::byte> room = ring->reserve(bytes);
///   ... fill room ...
///   ring->commit(bytes, {.flags = ring_flag::key});
///
/// Owner    of the file's name and of a lock beside it: one writer per name, as long as this
///          exists. The file stays behind, with all that was committed, until a successor replaces
///          it or somebody removes it.
/// Threads  one at a time.
/// Blocking open() takes some milliseconds, the others none.
/// Crash    a killed writer leaves the records up to the last commit readable for ever, and the
///          lock free.
class Ring_Writer {
public:
    /// Takes the lock, makes a new file in the place of the one that has the name, and tells the
    /// readers of that one. The folder of `path` has to be there; its rights decide who may read
    /// (readable_file_mode()), unless `access` does.
    ///
    /// @return null with the problem: `held` with the process that has the lock, or another.
    static std::unique_ptr<Ring_Writer> open(const std::string& path, const Ring_Size& size,
                                             Ring_Problem& problem,
                                             const std::optional<Ring_Access>& access = {});

    /// A ring that only this process sees; memory() is what a reader gets.
    ///
    /// @param first  number of the first record
    static std::unique_ptr<Ring_Writer> open_private(const Ring_Size& size, Ring_Problem& problem,
                                                     std::uint64_t first = 1);

    /// close().
    ~Ring_Writer();
    Ring_Writer(const Ring_Writer&) = delete;
    Ring_Writer& operator=(const Ring_Writer&) = delete;

    /// Room for a record of up to `bytes`, which has to be committed next, or reserved again. What
    /// the room destroys is out of reach for readers from here on.
    ///
    /// @return empty when `bytes` is more than the greatest record, when closed, and in a process
    ///         that was forked off the writer's.
    std::span<std::byte> reserve(std::size_t bytes);

    /// Hands the first `bytes` of the room to readers and wakes them. Without room nothing happens.
    ///
    /// @return the record's number; 0 without one.
    std::uint64_t commit(std::size_t bytes, const Record_Tags& tags);

    /// Says that nothing will come any more, and gives the lock up.
    void close();

    /// The number of the newest record; 0 before the first.
    std::uint64_t last() const { return last_; }

    /// The oldest number that a reserve(bytes) would leave in reach.
    std::uint64_t oldest_after(std::size_t bytes) const;

    std::size_t record_max() const { return ring_->facts().record_max; }
    const std::shared_ptr<Ring_Memory>& memory() const { return ring_; }

private:
    explicit Ring_Writer(std::shared_ptr<Ring_Memory> ring);
    std::size_t slot_of(std::uint64_t number) const;
    std::uint64_t place_for(std::size_t bytes) const;
    std::uint64_t oldest_beside(std::uint64_t begin, std::size_t bytes) const;

    const std::shared_ptr<Ring_Memory> ring_;
    Writer_Lock lock_;
    const unsigned forks_;               // of this process when the writer was made
    std::vector<std::uint64_t> begins_;  // positions of the records, at number % index_count
    std::uint64_t last_ = 0;             // number of the newest record
    std::uint64_t bytes_ = 0;            // of all records
    std::uint64_t oldest_ = 1;           // what `tail` says
    std::uint64_t end_ = 0;              // position behind the newest record
    std::uint64_t room_begin_ = 0;       // position of the room that was reserved
    std::size_t room_bytes_ = 0;
    bool has_room_ = false;
    bool closed_ = false;
};

}  // namespace zav_shm
