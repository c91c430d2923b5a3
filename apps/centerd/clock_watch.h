// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ipc/descriptor.h"

namespace zav_shm::centerd {

/// Notices that the wall clock was set.
///
/// Every wait of the center follows the wall clock: after a step back of an hour, the waits that
/// are under way last an hour longer. The kernel tells of a step by cancelling a timer of that
/// clock (TFD_TIMER_CANCEL_ON_SET); the small corrections of a clock that is disciplined are none.
class Clock_Watch {
public:
    Clock_Watch();

    /// Readable after a step. -1 when the kernel has no such timers: then steps go unnoticed.
    int descriptor() const { return timer_.get(); }

    /// Takes the news, and watches on.
    ///
    /// @return true when the clock was set since the last call.
    bool was_set();

private:
    void arm() const;

    Descriptor timer_;
};

}  // namespace zav_shm::centerd
