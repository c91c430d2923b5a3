// SPDX-License-Identifier: Apache-2.0
#include "ring/ring_reader.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "ipc/memory_fence.h"
#include "ipc/test_point.h"

namespace zav_shm {

namespace {

// How often the newest record's entry is asked for its number: each time in vain means that the
// writer has gone around the whole ring in between.
constexpr int attempts_max = 16;

constexpr std::uint64_t share_kept_clear = 8;

// One of 32: readers of one process that wait on the same ring rarely wake each other.
std::uint32_t next_set() {
    static std::atomic<std::uint32_t> readers{0};
    return 1U << (readers.fetch_add(1, std::memory_order_relaxed) % 32U);
}

}  // namespace

bool is_in_reach(const Ring_Memory& ring, std::uint32_t number) {
    // What was read before this of a newer record brings that record's tail with it; pairs with the
    // fence in Ring_Writer::reserve().
    acquire_fence();
    const auto tail = ring.load(ring_tail_offset);
    return tail && ring_distance(*tail, number) <= 0;
}

void wake_waiting_writer(const Ring_Memory& ring, std::uint32_t number) {
    full_fence();  // pairs with the one of the writer, which stores the word and then looks
    const auto awaited = ring.load(ring_awaited_offset);
    if (awaited && *awaited != 0 && (number == 0 || ring_distance(number, *awaited) >= 0)) {
        futex_wake(ring.awaited_word());
    }
}

// Numbers have 64 bits and the head 32: the entry of the newest record knows the rest. The entry
// stays as it is until the index has gone around, also when room for the next record has destroyed
// the newest one itself.
Ring_Reader::Ring_Reader(std::shared_ptr<const Ring_Memory> memory)
    : memory_(std::move(memory)), set_(next_set()) {
    for (int i = 0; i < attempts_max; ++i) {
        const std::uint32_t head = load(ring_head_offset);
        Ring_Entry entry;
        memory_->copy(memory_->entry_offset(head), std::as_writable_bytes(std::span(&entry, 1)));
        acquire_fence();
        if (load(ring_head_offset) - head < memory_->facts().index_count - 1) {
            cursor_ = ((std::uint64_t{entry.number_high} << 32U) | head) + 1;
            return;
        }
    }
    cursor_ = std::uint64_t{load(ring_head_offset)} + 1;
}

Ring_Reader::Look Ring_Reader::look(Ring_Record& record) const {
    // The head first: an honest writer's tail, loaded later, is never too far behind it.
    const auto head = memory_->load(ring_head_offset);  // pairs with Ring_Writer::commit()
    test_point("ring", "head_read");
    const auto tail = memory_->load(ring_tail_offset);
    if (!head || !tail) {
        return Look::broken;
    }
    seen_head_ = *head;
    const auto low = static_cast<std::uint32_t>(cursor_);
    if (ring_distance(*tail, low) > 0) {
        return is_sound_behind(*tail) ? Look::overtaken : Look::broken;
    }
    if (ring_distance(*head, low) < 0) {
        return Look::nothing;
    }
    if (*head - *tail >= memory_->facts().index_count) {
        return Look::broken;
    }
    Ring_Entry entry;
    if (!memory_->copy(memory_->entry_offset(low), std::as_writable_bytes(std::span(&entry, 1)))) {
        return Look::broken;
    }
    test_point("ring", "entry_read");
    if (!is_in_reach(cursor_)) {
        return Look::overtaken;  // whatever the entry says
    }
    if (!is_sound(entry, cursor_)) {
        return Look::broken;
    }
    ++found_;
    const std::byte* const begin = memory_->at(memory_->record_offset(entry));
    record.number = cursor_;
    record.entry = entry;
    record.bytes = begin == nullptr ? std::span<const std::byte>() : std::span(begin, entry.length);
    return Look::record;
}

// An honest head is at most one behind a tail that was loaded before it, and less than the index
// ahead of one that is loaded after it. Where it is not, there is nothing to go on with, wherever
// the cursor is put.
bool Ring_Reader::is_sound_behind(std::uint32_t tail) const {
    const auto head = memory_->load(ring_head_offset);
    const auto later_tail = memory_->load(ring_tail_offset);
    return head && later_tail && ring_distance(*head, tail) >= -1 &&
           ring_distance(*head, *later_tail) <
               static_cast<std::int32_t>(memory_->facts().index_count);
}

bool Ring_Reader::copy(const Ring_Record& record, std::size_t offset,
                       std::span<std::byte> into) const {
    return offset <= record.entry.length && into.size() <= record.entry.length - offset &&
           memory_->copy(memory_->record_offset(record.entry) + offset, into);
}

Futex_Wait Ring_Reader::wait(std::int64_t deadline_ns) const {
    return futex_wait(memory_->head_word(), seen_head_, deadline_ns, set_);
}

void Ring_Reader::wake() const { futex_wake(memory_->head_word(), set_); }

// ---- the cursor ----

// The head or tail that is nearest to the cursor. Unsigned: a hostile entry may have led the cursor
// to any number.
std::uint64_t Ring_Reader::extended(std::uint32_t low) const {
    const std::int64_t distance = ring_distance(low, static_cast<std::uint32_t>(cursor_));
    const bool is_below_0 = distance < 0 && static_cast<std::uint64_t>(-distance) > cursor_;
    return is_below_0 ? 0 : cursor_ + static_cast<std::uint64_t>(distance);
}

std::uint64_t Ring_Reader::newest() const { return extended(load(ring_head_offset)); }

// The tail first: a reader that is held up between the two then gets an older tail, and not one
// that contradicts the head.
std::uint64_t Ring_Reader::oldest() const {
    const std::uint32_t tail = load(ring_tail_offset);
    test_point("ring", "tail_read");
    const std::uint32_t head = load(ring_head_offset);
    const bool is_sound = ring_distance(head, tail) >= -1 &&
                          ring_distance(head, tail) < static_cast<std::int32_t>(ring_index_max);
    return is_sound ? extended(tail) : extended(head) + 1;
}

std::uint64_t Ring_Reader::safe_oldest() const {
    const std::uint64_t first = oldest();
    const std::uint64_t behind_last = newest() + 1;
    const std::uint64_t held = behind_last > first ? behind_last - first : 0;
    return std::min(first + held / share_kept_clear + 1, std::max(behind_last, first));
}

std::optional<Ring_Entry> Ring_Reader::entry_of(std::uint64_t number) const {
    Ring_Entry entry;
    const std::uint64_t offset = memory_->entry_offset(static_cast<std::uint32_t>(number));
    const bool usable = memory_->copy(offset, std::as_writable_bytes(std::span(&entry, 1))) &&
                        is_in_reach(number) && is_sound(entry, number);
    return usable ? std::optional(entry) : std::nullopt;
}

bool Ring_Reader::is_sound(const Ring_Entry& entry, std::uint64_t number) const {
    const Ring_Facts& facts = memory_->facts();
    return entry.number_high == static_cast<std::uint32_t>(number >> 32U) &&
           entry.length <= facts.record_max && entry.offset % ring_record_alignment == 0 &&
           entry.offset <= facts.data_bytes && entry.length <= facts.data_bytes - entry.offset;
}

std::optional<std::uint64_t> Ring_Reader::find_back(std::uint64_t from,
                                                    const Wanted& wanted) const {
    const std::uint64_t first = std::max<std::uint64_t>(oldest(), 1);
    std::uint64_t number = std::min(from, newest());
    for (std::uint32_t left = memory_->facts().index_count; left > 0 && number >= first;
         --left, --number) {
        const auto entry = entry_of(number);
        if (!entry) {
            break;  // overwritten, and so are all before it
        }
        if (wanted(*entry)) {
            return number;
        }
    }
    return std::nullopt;
}

std::optional<std::uint64_t> Ring_Reader::find_on(std::uint64_t from, const Wanted& wanted) const {
    const std::uint64_t last = newest();
    std::uint64_t number = std::max(from, oldest());
    for (std::uint32_t left = memory_->facts().index_count; left > 0 && number <= last;
         --left, ++number) {
        const auto entry = entry_of(number);
        if (entry && wanted(*entry)) {
            return number;
        }
    }
    return std::nullopt;
}

bool Ring_Reader::is_closed() const { return load(ring_state_offset) != ring_state::live; }

}  // namespace zav_shm
