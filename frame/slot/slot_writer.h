// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>

#include "frame/frame_header.h"
#include "stream/endpoint.h"

namespace zav_shm {

/// The producer's endpoint with the steps of one frame apart, each bounded, and with the commit
/// rule of frame_header.h: wait for a consumer, begin, fill the room, commit.
///
/// Crash    between begin and commit the slot holds no frame: its commit field is 0.
class Slot_Writer : public ZAV_SHM_Stream_Distributor {
public:
    using ZAV_SHM_Stream_Distributor::ZAV_SHM_Stream_Distributor;

    /// False when the segment or a semaphore could not be had.
    bool is_usable() const;

    /// Bytes of the largest payload.
    std::size_t capacity() const;

    /// Waits up to `ms` milliseconds until a consumer is present; before that, if commit() returned
    /// false, up to 10 ms until the relay is done with that frame.
    ///
    /// The first time, and after both waits for a slot were in vain, the relay may still be at a
    /// frame that was posted before. Until it has taken that one nobody is present; then an old
    /// presence does not count, and the new one is waited for up to 40 ms, once.
    bool wait_for_consumer(long ms);

    /// Takes a presence that was posted meanwhile; never waits.
    bool take_presence();

    /// Ends a wait_for_consumer() of another thread, which then has no consumer after all.
    void end_wait();

    /// Takes the slot's frame back: from here to commit() it holds none.
    void begin();

    /// The slot's payload, to be filled between begin() and commit().
    std::span<std::byte> room();

    /// Completes the frame with its header, whose commit field is filled in, and waits up to 33 ms
    /// until the slot is free again.
    ///
    /// @return false when it was not free by then.
    bool commit(const ZAV_SHM_Frame_Header& header);

private:
    std::byte* slot() const;
    bool fall_into_step(long ms);

    // Of the producer with its relay.
    enum class Step {
        unknown,
        late,  // the relay has not given the slot back in time
        same
    };
    Step step_ = Step::unknown;
};

}  // namespace zav_shm
