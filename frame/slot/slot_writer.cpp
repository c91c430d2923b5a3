// SPDX-License-Identifier: Apache-2.0
#include "frame/slot/slot_writer.h"

#include <algorithm>
#include <cstring>

#include "ipc/memory_fence.h"
#include "stream/semaphore_roles.h"

namespace zav_shm {

namespace {

// As for every producer: one frame at 30 frames per second.
constexpr long slot_free_wait_ms = 33;

// For a relay that is still at the frame before.
constexpr long step_wait_ms = 10;

// The relay waits 30 ms for a frame before it begins a cycle anew.
constexpr long new_presence_wait_ms = 40;

void store_commit(std::byte* slot, std::uint32_t commit, int order) {
    void* const field = slot + offsetof(ZAV_SHM_Frame_Header, commit);
    __atomic_store_n(static_cast<std::uint32_t*>(field), commit, order);
}

}  // namespace

bool Slot_Writer::is_usable() const {
    if (!slot_is_mapped() || shm->size < frame_header_bytes) {
        return false;
    }
    for (const auto& entry : sem_list) {
        if (!entry->is_open()) {
            return false;
        }
    }
    return true;
}

std::byte* Slot_Writer::slot() const { return static_cast<std::byte*>(shm->mem_addr); }

std::size_t Slot_Writer::capacity() const { return shm->size - frame_header_bytes; }

// A relay that is still at the frame before gives the slot back for that one: taken for the next
// frame's, it would have that one overwritten before anybody was told of it.
bool Slot_Writer::wait_for_consumer(long ms) {
    const long step_ms = std::min(ms, step_wait_ms);
    if (step_ == Step::late) {
        const bool is_free = semaphore(producer_side::slot_free)->wait_steady(step_ms) == 0;
        step_ = is_free ? Step::same : Step::unknown;
        if (!is_free) {
            return false;
        }
    }
    if (step_ == Step::unknown) {
        if (!fall_into_step(step_ms)) {
            return false;
        }
        ms = std::max(ms, new_presence_wait_ms);
    }
    return semaphore(producer_side::consumer_present)->wait_steady(ms) == 0;
}

bool Slot_Writer::take_presence() {
    return semaphore(producer_side::consumer_present)->try_wait() == 0;
}

void Slot_Writer::end_wait() { semaphore(producer_side::consumer_present)->post_if_zero(); }

// A producer that comes in the middle of a frame must not take the presence that is posted already:
// the slot would be given back for that frame while its own is being read, and it would stay one
// frame ahead of the relay from then on. The presence behind it comes with the next cycle.
bool Slot_Writer::fall_into_step(long ms) {
    const SEM_CTRL& written = *semaphore(producer_side::frame_written);
    if (written.value() > 0) {
        semaphore(producer_side::slot_free)->wait_steady(ms);
        if (written.value() > 0) {
            return false;
        }
    }
    semaphore(producer_side::consumer_present)->try_wait();
    step_ = Step::same;
    return true;
}

// The fence keeps the writes of header and payload behind the store of 0. With the magic in place
// a reader does not take a slot that another producer used before for a frame of that one.
void Slot_Writer::begin() {
    store_commit(slot(), 0, __ATOMIC_RELAXED);
    release_fence();
    std::memcpy(slot(), &frame_magic, sizeof frame_magic);
    std::memcpy(slot() + offsetof(ZAV_SHM_Frame_Header, version), &frame_version,
                sizeof frame_version);
}

std::span<std::byte> Slot_Writer::room() { return {slot() + frame_header_bytes, capacity()}; }

bool Slot_Writer::commit(const ZAV_SHM_Frame_Header& header) {
    // A reader that sees this header sees the payload, too; pairs with the fence behind its copy.
    release_fence();
    std::memcpy(slot(), &header, offsetof(ZAV_SHM_Frame_Header, commit));
    // Pairs with the acquire in Slot_Reader::use_once().
    store_commit(slot(), commit_of(header.sequence), __ATOMIC_RELEASE);
    // A post that was left behind by an earlier frame would end this frame's wait at once.
    SEM_CTRL& slot_free = *semaphore(producer_side::slot_free);
    slot_free.try_wait();
    post_transmission();
    step_ = slot_free.wait_steady(slot_free_wait_ms) == 0 ? Step::same : Step::late;
    return step_ == Step::same;
}

}  // namespace zav_shm
