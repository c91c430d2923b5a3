// SPDX-License-Identifier: Apache-2.0
#include "frame/slot_reader.h"

#include <cstring>

#include "frame/monotonic_clock.h"
#include "frame/slot_fence.h"
#include "stream/semaphore_roles.h"

namespace zav_shm {

namespace {

// How long a consumer waits before it announces itself again; the same for every consumer.
constexpr long frame_wait_ms = 30;

std::uint32_t load(const std::byte* slot, std::size_t offset, int order) {
    const void* const field = slot + offset;
    return __atomic_load_n(static_cast<const std::uint32_t*>(field), order);
}

// In halves: a 64-bit load is not one instruction everywhere, and what is asked is only whether
// the field is still the same.
bool still_holds(const std::byte* slot, std::size_t offset, std::uint64_t value) {
    std::uint32_t halves[2];
    std::memcpy(halves, &value, sizeof halves);
    return load(slot, offset, __ATOMIC_RELAXED) == halves[0] &&
           load(slot, offset + sizeof halves[0], __ATOMIC_RELAXED) == halves[1];
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

const std::byte* Slot_Reader::slot() const { return static_cast<const std::byte*>(shm->mem_addr); }

bool Slot_Reader::is_noticed() const {
    return semaphore(consumer_side::consumer_present)->value() == 0;
}

Slot_Reader::Take Slot_Reader::take(Received_Frame& frame) {
    post_transmission_receiver_exist();
    if (semaphore(consumer_side::frame_ready)->wait_steady(frame_wait_ms) != 0) {
        return Take::nothing;
    }
    const Take taken = copy_checked(frame);
    post_transmission();
    return taken;
}

// A second try, since a writer that was early is often done by then.
Slot_Reader::Take Slot_Reader::copy_checked(Received_Frame& frame) {
    const std::lock_guard guard(*lock);
    if (!slot_is_mapped() || shm->size < frame_header_bytes) {
        return Take::unmapped;
    }
    const Take first = copy_once(frame);
    return first == Take::torn ? copy_once(frame) : first;
}

Slot_Reader::Take Slot_Reader::copy_once(Received_Frame& frame) const {
    ZAV_SHM_Frame_Header& header = frame.header;
    constexpr std::size_t commit_offset = offsetof(ZAV_SHM_Frame_Header, commit);
    const std::uint32_t commit = load(slot(), commit_offset, __ATOMIC_ACQUIRE);
    std::memcpy(&header, slot(), sizeof header);
    frame.verified = header.magic == frame_magic && header.version == frame_version;
    if (frame.verified && (commit == 0 || commit != commit_of(header.sequence))) {
        return Take::torn;
    }
    if (header.payload_length > shm->size - frame_header_bytes) {
        return Take::invalid;
    }
    frame.length = header.payload_length;
    if (frame.bytes.size() < frame.length) {
        frame.bytes.resize(frame.length);
    }
    if (frame.length > 0) {
        std::memcpy(frame.bytes.data(), slot() + frame_header_bytes, frame.length);
    }
    frame.received_ns = monotonic_ns();
    if (!frame.verified) {
        header = {};
        header.payload_length = static_cast<std::uint32_t>(frame.length);
        return Take::frame;
    }
    // Keeps the loads below behind the copy; pairs with the fence in Slot_Writer::begin().
    acquire_fence();
    const bool whole =
        load(slot(), commit_offset, __ATOMIC_RELAXED) == commit &&
        still_holds(slot(), offsetof(ZAV_SHM_Frame_Header, sequence), header.sequence) &&
        still_holds(slot(), offsetof(ZAV_SHM_Frame_Header, epoch), header.epoch);
    return whole ? Take::frame : Take::torn;
}

}  // namespace zav_shm
