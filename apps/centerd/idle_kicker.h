// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "center/shm_center.h"

namespace zav_shm::centerd {

/// Calls the center's idle kick in an interval.
///
/// On a thread of its own, "zav_kick", since a kick waits for a cycle of each relay whose consumer
/// it takes out: the main thread has to stay free to notice that the clock was set, which may be
/// what that relay is held by, and to feed the watchdog.
class Idle_Kicker {
public:
    /// @param interval  above 0. Throws std::system_error when there cannot be another thread.
    Idle_Kicker(ZAV_SHM_CENTER& center, std::chrono::milliseconds interval);

    /// Ends the thread and waits for it; a relay that a kick is waiting for is interrupted.
    ~Idle_Kicker();
    Idle_Kicker(const Idle_Kicker&) = delete;
    Idle_Kicker& operator=(const Idle_Kicker&) = delete;

private:
    void run();

    ZAV_SHM_CENTER& center_;
    const std::chrono::milliseconds interval_;
    std::mutex lock_;                  // guards the next three
    std::condition_variable changed_;  // notified when one of the next two becomes true
    bool stopping_ = false;
    bool left_ = false;
    std::thread thread_;
};

}  // namespace zav_shm::centerd
