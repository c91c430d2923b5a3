// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "stream/zav_stream_processor.h"

/// Two endpoints of one source, a main and a sub stream, of which one is read: for a camera the
/// full and the reduced resolution. Leaving an endpoint pauses it, so that its relay does not wait
/// for a reader that has gone to the other.
///
///   ZAV_SHM_Dual_Stream_Receiver streams;
///   streams.set_dual_stream(client.get_receiver(0, 0), client.get_receiver(0, 1));
///   streams.enable_main_stream();
///   streams.receive_frame(&frame);
///   streams.switch_stream();
///
/// Owner    borrows the endpoints, which stay the receiver client's: they have to outlive this
///          object, or its slots and cursor.
/// Threads  one: the thread that reads the frames switches, too.
/// Blocking receive_frame up to 30 ms, as the endpoint; everything else returns at once.
/// Errors   shown in results and printed to standard output; nothing throws.
/// Crash    leaves what the endpoints leave.
class ZAV_SHM_Dual_Stream_Receiver {
public:
    static constexpr int MAX_DUAL_STREAM_NUM = 2;
    static constexpr int MAIN_STREAM_INDEX = 0;
    static constexpr int SUB_STREAM_INDEX = 1;
    static constexpr int INVALID_STREAM_INDEX = -1;

    /// Nothing set and nothing chosen.
    ZAV_SHM_Dual_Stream_Receiver() = default;
    ZAV_SHM_Dual_Stream_Receiver(const ZAV_SHM_Dual_Stream_Receiver&) = delete;
    ZAV_SHM_Dual_Stream_Receiver& operator=(const ZAV_SHM_Dual_Stream_Receiver&) = delete;

    /// Deletes no endpoint and pauses none.
    virtual ~ZAV_SHM_Dual_Stream_Receiver() = default;

    /// Moves to the other stream, and pauses the one that is left.
    ///
    /// @return 1 when switched; 0 when none is current, when the current one is in neither slot
    ///         ("Can't Get Any Stream"), or when the other slot is empty (printed, too).
    virtual unsigned switch_stream();

    /// Sets both slots; either may be null. The current endpoint stays current, also when it is in
    /// neither slot afterwards.
    void set_dual_stream(ZAV_SHM_Stream_Receiver* main, ZAV_SHM_Stream_Receiver* sub);

    /// Slot of the current endpoint: MAIN_STREAM_INDEX, SUB_STREAM_INDEX, or INVALID_STREAM_INDEX
    /// when none is current or it is in neither slot.
    int get_current_stream_index() const;

    /// Makes any endpoint, also null, the current one, and pauses the former.
    ///
    /// @return INVALID_STREAM_INDEX when there was no former one; 1 when it was paused.
    int set_cursor(ZAV_SHM_Stream_Receiver* receiver);

    /// Make the endpoint in that slot, also an empty one, the current one, unless it is.
    ///
    /// @return the slot's index when it was current already; otherwise what set_cursor returns.
    int enable_main_stream();
    int enable_sub_stream();

    /// Reads one frame from the current endpoint.
    ///
    /// @param frame  `payload` with room for the larger page size of the two.
    /// @return 1 when a frame was taken; 0 when none came, or when no endpoint is current
    ///         ("There is not stream_receiver_cursor" is printed).
    int receive_frame(STREAM_FRAME_FORMAT* frame);

protected:
    ZAV_SHM_Stream_Receiver* stream_receiver_cursor = nullptr;  // not owned; null: none current

private:
    ZAV_SHM_Stream_Receiver* slot(int index) const;
    int enable(int index);

    using Slots = std::vector<ZAV_SHM_Stream_Receiver*>;

    Slots slots_ = Slots(MAX_DUAL_STREAM_NUM);  // not owned; null where none is set
};
