// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "frame/frame_counters.h"
#include "frame/received_frame.h"
#include "frame/sequence_watch.h"
#include "frame/slot_reader.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm {

/// The books of a subscriber: judges what its thread takes off the slot, and counts it.
///
/// Threads  one judges and counts; counters() and handed_out() from any.
class Frame_Ledger {
public:
    Frame_Ledger(bool start_at_key_frame, bool key_frame_after_loss);

    /// Forgets what came before: the next frame is the first one. The counters go on.
    void begin_anew();

    /// Sets what a whole frame has to say of those before it, and counts it.
    Sequence_Watch::Verdict judge(Received_Frame& frame);

    /// Counts a wait that did not end with a whole frame.
    ///
    /// @param noticed  a relay took the announcement of that wait
    void count(Slot_Reader::Take taken, bool noticed);

    void dropped(std::uint64_t frames);
    void handed_out();
    void recovered();

    Subscriber_Counters counters() const;

private:
    const bool start_at_key_frame_;
    const bool key_frame_after_loss_;
    Sequence_Watch watch_;

    mutable Mutex mutex_;
    Subscriber_Counters counters_ ZAV_SHM_GUARDED_BY(mutex_);
};

}  // namespace zav_shm
