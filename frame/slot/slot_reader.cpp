// SPDX-License-Identifier: Apache-2.0
#include "frame/slot/slot_reader.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "ipc/memory_fence.h"
#include "ipc/test_point.h"
#include "stream/semaphore_roles.h"

namespace zav_shm {

namespace {

// How often a consumer that waits looks whether its announcement was taken, and announces itself
// again. A relay that has taken it asks for the next one when it has passed a frame on, which this
// consumer then hears of, or has waited 30 ms for one: with 20 ms, the next one is always there in
// time. Each look costs a waking.
constexpr long announce_every_ms = 20;

constexpr long frame_wait_ms = 2 * announce_every_ms;

constexpr std::size_t commit_offset = offsetof(ZAV_SHM_Frame_Header, commit);
constexpr std::size_t sequence_offset = offsetof(ZAV_SHM_Frame_Header, sequence);
constexpr std::size_t epoch_offset = offsetof(ZAV_SHM_Frame_Header, epoch);

std::uint32_t load(const std::byte* slot, std::size_t offset, int order) {
    const void* const field = slot + offset;
    return __atomic_load_n(static_cast<const std::uint32_t*>(field), order);
}

// In halves: a 64-bit load is not one instruction everywhere, and what is asked is only whether
// the field is the same as at another time.
std::uint64_t load_halves(const std::byte* slot, std::size_t offset) {
    const std::uint32_t halves[2] = {load(slot, offset, __ATOMIC_RELAXED),
                                     load(slot, offset + sizeof halves[0], __ATOMIC_RELAXED)};
    std::uint64_t value = 0;
    std::memcpy(&value, halves, sizeof value);
    return value;
}

// A foreign producer whose header is nothing but zeros has no payload either.
bool is_unwritten(const ZAV_SHM_Frame_Header& header) {
    static constexpr ZAV_SHM_Frame_Header as_made = {};
    return std::memcmp(&header, &as_made, sizeof header) == 0;
}

}  // namespace

bool Slot_Reader::is_usable() const {
    for (const auto& entry : sem_list) {
        if (!entry->is_open()) {
            return false;
        }
    }
    return slot_is_mapped();
}

std::size_t Slot_Reader::capacity() const {
    return slot_is_mapped() && shm->size > frame_header_bytes ? shm->size - frame_header_bytes : 0;
}

const std::byte* Slot_Reader::slot() const { return static_cast<const std::byte*>(shm->mem_addr); }

bool Slot_Reader::is_noticed() const {
    return was_noticed_ || semaphore(consumer_side::consumer_present)->value() == 0;
}

Slot_Reader::Take Slot_Reader::take(Slot_Frame& frame, const Copy& copy, const Patience& patience) {
    if (!wait_for_frame(patience)) {
        return Take::nothing;
    }
    // For the next frame, already: what keeps this thread from the processor from here on does not
    // make it absent.
    post_transmission_receiver_exist();
    const Take taken = use_checked(frame, copy);
    if (!relay_has_gone_on()) {
        post_transmission();
    }
    return taken;
}

void Slot_Reader::end_wait() { semaphore(consumer_side::frame_ready)->post_if_zero(); }

// A relay that has given this frame up asks for the next one's presence. It would take a post that
// comes after that for the next frame's, and have the producer overwrite that one while it is being
// copied.
bool Slot_Reader::relay_has_gone_on() const {
    return semaphore(consumer_side::consumer_present)->value() == 0;
}

bool Slot_Reader::wait_for_frame(const Patience& patience) {
    was_noticed_ = false;
    for (long waited_ms = 0; waited_ms < frame_wait_ms; waited_ms += announce_every_ms) {
        long wait_ms = announce_every_ms;
        if (patience) {
            // In 64 bits: a patience of 25 days does not fit into the long of a 32-bit target.
            wait_ms = static_cast<long>(std::min<std::int64_t>(wait_ms, patience().count()));
        }
        if (wait_ms <= 0) {
            return false;
        }
        was_noticed_ = was_noticed_ || (waited_ms > 0 && is_noticed());
        post_transmission_receiver_exist();
        if (semaphore(consumer_side::frame_ready)->wait_steady(wait_ms) == 0) {
            return true;
        }
    }
    return false;
}

// A second try, since a writer that was early is often done by then.
Slot_Reader::Take Slot_Reader::use_checked(Slot_Frame& frame, const Copy& copy) {
    const Guard guard(*lock);
    if (!slot_is_mapped() || shm->size < frame_header_bytes) {
        return Take::unmapped;
    }
    const Take first = use_once(frame, copy);
    return first == Take::torn ? use_once(frame, copy) : first;
}

Slot_Reader::Take Slot_Reader::use_once(Slot_Frame& frame, const Copy& copy) const {
    ZAV_SHM_Frame_Header& header = frame.header;
    // A producer that was started again may be writing its frame of the same number as the one that
    // its predecessor completed. It has cleared commit before it writes its epoch: with an epoch
    // that was there before, commit is that epoch's.
    const std::uint64_t epoch = load_halves(slot(), epoch_offset);
    acquire_fence();
    const std::uint32_t commit = load(slot(), commit_offset, __ATOMIC_ACQUIRE);
    test_point("copy", "header");
    std::memcpy(&header, slot(), sizeof header);
    // A header that is seen here has its payload seen below; pairs with Slot_Writer::commit().
    acquire_fence();
    frame.verified = is_ours(header);
    if (frame.verified &&
        (commit == 0 || commit != commit_of(header.sequence) || epoch != header.epoch)) {
        return Take::torn;
    }
    if (is_unwritten(header)) {
        return Take::unwritten;
    }
    const std::uint32_t length = header.payload_length;
    if (length > shm->size - frame_header_bytes) {
        return Take::invalid;
    }
    if (!frame.verified) {
        header = {};
        header.payload_length = length;
    }
    if (!copy(frame, {slot() + frame_header_bytes, length})) {
        return Take::no_memory;
    }
    const bool same = frame.verified ? still_holds_frame(header, commit) : is_still_foreign();
    return same ? Take::frame : Take::torn;
}

// What looked foreign may have been the header that one of our producers was just beginning.
bool Slot_Reader::is_still_foreign() const {
    acquire_fence();
    ZAV_SHM_Frame_Header now = {};
    const std::uint64_t begin = load_halves(slot(), 0);
    std::memcpy(&now, &begin, sizeof begin);
    return !is_ours(now);
}

// The fence keeps the loads behind the reading of the payload; pairs with the one in
// Slot_Writer::begin(). Commit is loaded before the others: behind them, a producer that has stored
// these might complete its frame in between.
bool Slot_Reader::still_holds_frame(const ZAV_SHM_Frame_Header& header,
                                    std::uint32_t commit) const {
    acquire_fence();
    return load(slot(), commit_offset, __ATOMIC_ACQUIRE) == commit &&
           load_halves(slot(), sequence_offset) == header.sequence &&
           load_halves(slot(), epoch_offset) == header.epoch;
}

}  // namespace zav_shm
