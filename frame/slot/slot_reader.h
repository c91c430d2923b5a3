// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "frame/frame_header.h"
#include "stream/endpoint.h"

namespace zav_shm {

/// What a slot held: the frame's header, which says nothing but its length where it is a foreign
/// producer's.
struct Slot_Frame {
    ZAV_SHM_Frame_Header header = {};
    bool verified = false;  // false: a foreign producer's
};

/// The consumer's endpoint with copies that are checked by the commit rule of frame_header.h.
///
/// Whatever the slot holds is hostile: each field is loaded once, checked, then used.
///
/// Threads  as the base: one thread takes, any thread may change_shm.
class Slot_Reader : public ZAV_SHM_Stream_Receiver {
public:
    using ZAV_SHM_Stream_Receiver::ZAV_SHM_Stream_Receiver;

    enum class Take {
        nothing,    // no frame within the time, or the caller's patience was over
        frame,      // whole, or of a foreign producer
        torn,       // overwritten during the copy, and again during a second one
        invalid,    // its length field is beyond the slot
        no_memory,  // for the copy
        unmapped,   // there is no slot
        unwritten   // nobody has written into it yet: what was announced is in another one
    };

    /// False when the segment or a semaphore could not be had.
    bool is_usable() const;

    /// Bytes of the largest payload; 0 without a slot.
    std::size_t capacity() const;

    /// Copies a payload from where it lies. It may be overwritten meanwhile: only the result of
    /// taking tells whether it was one whole frame.
    ///
    /// @return false when there is no room for the copy
    using Copy = std::function<bool(const Slot_Frame& frame, std::span<const std::byte> payload)>;

    /// How much longer the caller is ready to wait; asked again and again.
    using Patience = std::function<std::chrono::milliseconds()>;

    /// Announces this consumer, waits up to 40 ms for a frame and has it copied: once, or twice
    /// when the first time proved torn. The copy holds up change_shm(), and the producer for 20 ms.
    ///
    /// @param patience  ends the wait when it is 0; null: none does
    /// @param frame  changed also when the result is not `frame`
    Take take(Slot_Frame& frame, const Copy& copy, const Patience& patience = {});

    /// True when the center has taken an announcement of the latest wait: this consumer is in a
    /// relay's list. Tells nothing right after an announcement: a cycle of the relay takes its
    /// time.
    bool is_noticed() const;

    /// Ends a take() of another thread, which then has nothing.
    void end_wait();

private:
    bool wait_for_frame(const Patience& patience);
    bool relay_has_gone_on() const;
    Take use_checked(Slot_Frame& frame, const Copy& copy);
    Take use_once(Slot_Frame& frame, const Copy& copy) const;
    bool is_still_foreign() const;
    bool still_holds_frame(const ZAV_SHM_Frame_Header& header, std::uint32_t commit) const;
    const std::byte* slot() const;

    bool was_noticed_ = false;  // during the latest wait
};

}  // namespace zav_shm
