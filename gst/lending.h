// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace zav_shm::gst {

/// Decides when an element upstream may be lent room in the stream's history to write its next
/// frame in place, which saves a copy.
///
/// The history has room for one frame at a time: while it is lent, no other frame can be written.
/// And what was published belongs to the readers: the publisher overwrites it in time, whoever
/// upstream still looks at it. So room is lent only where one buffer goes upstream and comes back
/// before the next one is asked for, and nobody else holds it. That is tried with ordinary memory
/// first. What turns out otherwise, then or later, ends the lending until the next negotiation.
///
/// Threads  one at a time.
class Lending {
public:
    /// Buffers that have to come as they should before any room is lent.
    static constexpr std::uint32_t trial_buffers = 16;

    /// Another negotiation: everything is tried anew.
    void begin() {
        arrived_ = 0;
        is_off_ = false;
    }

    /// A buffer of the pool goes upstream, on loan or not, and comes back.
    void acquire() { ++out_; }
    void release() { --out_; }

    /// A buffer is there to be published.
    ///
    /// @param is_of_pool  it was acquired from the pool
    /// @param is_alone    nobody else holds it, or its memory
    void arrive(bool is_of_pool, bool is_alone) {
        if (!is_of_pool || !is_alone || out_ != 1) {
            is_off_ = true;
        }
        if (arrived_ < trial_buffers) {
            ++arrived_;
        }
    }

    /// Something happened that cannot be while buffers come one at a time.
    void end() { is_off_ = true; }

    /// Whether the next buffer may be room in the history: the trial is over, and no other buffer
    /// is on its way, which would have to be written first.
    bool may_lend() const { return !is_off_ && arrived_ >= trial_buffers && out_ == 0; }

private:
    std::uint32_t out_ = 0;  // buffers upstream
    std::uint32_t arrived_ = 0;
    bool is_off_ = false;
};

}  // namespace zav_shm::gst
