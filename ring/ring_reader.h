// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "ipc/futex.h"
#include "ring/ring_memory.h"

namespace zav_shm {

/// A record as it lies in a ring. It may be overwritten at any moment: what was made of it counts
/// only if Ring_Reader::is_in_reach() says so afterwards.
struct Ring_Record {
    std::uint64_t number = 0;
    Ring_Entry entry;
    std::span<const std::byte> bytes;  // where they lie; empty in a ring that is read by copying
};

/// True when no byte of this record has been overwritten up to now.
bool is_in_reach(const Ring_Memory& ring, std::uint32_t number);

/// Wakes the ring's writer if it waits for a reader to be at this number, or beyond. The reader has
/// shown before, where the writer looks, that it is.
void wake_waiting_writer(const Ring_Memory& ring, std::uint32_t number);

/// A cursor over one ring.
///
///   Ring_Reader reader(Ring_Memory::open(path, Ring_Memory::Reading::mapped, problem));
///   Ring_Record record;
///   while (reader.look(record) == Ring_Reader::Look::record) {
///       ... use record.bytes ...
///       const bool whole = reader.is_in_reach(record.number);
///       reader.advance();
///   }
///
/// Nothing that a writer does harms a reader: each word and entry is loaded once, checked and then
/// used.
///
/// Threads  one at a time; wake() from any.
/// Crash    a killed reader leaves nothing.
class Ring_Reader {
public:
    /// Begins behind the newest record.
    ///
    /// @param memory  not null
    explicit Ring_Reader(std::shared_ptr<const Ring_Memory> memory);

    enum class Look {
        record,
        nothing,    // the cursor is behind the newest record: wait()
        overtaken,  // the record was overwritten: move the cursor
        broken      // the writer has damaged the ring, or the file has lost its end
    };

    /// Finds the record at the cursor, which stays there.
    Look look(Ring_Record& record) const;

    /// True when no byte of the record has been overwritten up to now.
    bool is_in_reach(std::uint64_t number) const {
        return zav_shm::is_in_reach(*memory_, static_cast<std::uint32_t>(number));
    }

    /// True when an entry leads to a record of this number within the file, whoever wrote it.
    bool is_sound(const Ring_Entry& entry, std::uint64_t number) const;

    /// Copies a part of the record out, which is_in_reach() may afterwards find overwritten.
    ///
    /// @return false when the file has lost it.
    bool copy(const Ring_Record& record, std::size_t offset, std::span<std::byte> into) const;

    /// Sleeps until there may be a record at the cursor, a wake, or the deadline. Call it after
    /// look() found nothing.
    ///
    /// @param deadline_ns  of CLOCK_MONOTONIC
    Futex_Wait wait(std::int64_t deadline_ns) const;

    /// True when the head is another one than the latest look() saw.
    bool has_news() const { return load(ring_head_offset) != seen_head_; }

    /// How many looks have found a record.
    std::uint64_t records_found() const { return found_; }

    /// Ends a wait() of this reader, and now and then one of another.
    void wake() const;

    // ---- the cursor ----

    std::uint64_t cursor() const { return cursor_; }
    void advance() { ++cursor_; }
    void move_to(std::uint64_t number) { cursor_ = number; }

    std::uint64_t newest() const;  // number of the newest record; 0 before the first
    std::uint64_t oldest()
        const;  // number of the oldest record in reach; newest() + 1: there is none

    /// The newest record in reach that `wanted` accepts, not beyond `from`; and the oldest one that
    /// is not before `from`. Nothing when there is none.
    using Wanted = std::function<bool(const Ring_Entry& entry)>;
    std::optional<std::uint64_t> find_back(std::uint64_t from, const Wanted& wanted) const;
    std::optional<std::uint64_t> find_on(std::uint64_t from, const Wanted& wanted) const;

    /// Where to go on after having been overtaken: an eighth of the history behind the oldest
    /// record. On the oldest itself the reader would be overtaken again at once.
    std::uint64_t safe_oldest() const;

    /// True when nothing will come any more: closed in order, or its writer has a successor.
    bool is_closed() const;
    const Ring_Memory& memory() const { return *memory_; }
    const std::shared_ptr<const Ring_Memory>& shared_memory() const { return memory_; }

private:
    bool is_sound_behind(std::uint32_t tail) const;
    std::optional<Ring_Entry> entry_of(std::uint64_t number) const;
    std::uint32_t load(std::size_t offset) const { return memory_->load(offset).value_or(0); }
    std::uint64_t extended(std::uint32_t low) const;

    const std::shared_ptr<const Ring_Memory> memory_;
    const std::uint32_t set_;  // of the wakes that are meant for this reader
    std::uint64_t cursor_ = 1;
    mutable std::uint32_t seen_head_ = 0;  // by the latest look()
    mutable std::uint64_t found_ = 0;      // looks that found a record
};

}  // namespace zav_shm
