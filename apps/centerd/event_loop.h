// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>

#include "ipc/descriptor.h"

namespace zav_shm::centerd {

/// What the main thread does: waits for descriptors and calls what belongs to them, one at a time.
/// Nothing that it calls may wait for a relay: a relay that the clock holds is freed from here.
class Event_Loop {
public:
    using Action = std::function<void()>;

    Event_Loop();

    /// @return false when the system has no descriptors left, also for the loop itself.
    bool is_open() const { return poll_.is_open() && !failed_; }

    /// Calls `action` whenever `descriptor`, which stays the caller's, is readable; the action
    /// takes what makes it so. A descriptor of -1 is never readable.
    void on_readable(int descriptor, Action action);

    /// Calls `action` every `period`, which is above 0, by the steady clock. Periods that were
    /// missed are not made up for.
    void every(std::chrono::milliseconds period, const Action& action);

    /// Calls `action` `times` times, after one `period` each.
    void repeat(int times, std::chrono::milliseconds period, const Action& action);

    /// Runs until end() is called from an action.
    void run();
    void end() { ended_ = true; }

private:
    void add_timer(std::chrono::milliseconds period, std::function<void(int)> action);

    Descriptor poll_;
    std::map<int, std::shared_ptr<Action>> actions_;
    std::map<int, Descriptor> timers_;
    bool ended_ = false;
    bool failed_ = false;
};

}  // namespace zav_shm::centerd
