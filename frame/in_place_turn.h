// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "frame/frame_subscriber.h"

namespace zav_shm {

/// How read_in_place() lends its two functions to the subscriber's thread, and gets them back
/// before it returns.
///
/// Threads  one reads, one begins and ends, any opens and closes.
class In_Place_Turn {
public:
    using In_Place = ZAV_SHM_Frame_Subscriber::In_Place;

    void open();

    /// Ends reading: read() returns as soon as the thread is done with its frame.
    void close();

    /// Lends `by` for `time`, or until the thread ends it for good.
    Receive_Status read(const In_Place& by, std::chrono::milliseconds time);

    /// What the thread is to use for one frame; null when nobody reads in place. end() has to
    /// follow.
    const In_Place* begin();
    void end(bool for_good);

private:
    std::mutex mutex_;  // guards all below
    std::condition_variable changed_;
    const In_Place* lent_ = nullptr;
    bool in_use_ = false;
    bool closed_ = true;
};

}  // namespace zav_shm
