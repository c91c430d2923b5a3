// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "ipc/annotated_mutex.h"

namespace zav_shm {

/// Sleeps until something gets a name in a folder.
///
/// Owner    of two file descriptors, from begin() to end(). Where they cannot be had, sleep()
///          returns after a twentieth of a second.
/// Threads  one; wake() from any.
class Name_Watch {
public:
    Name_Watch() = default;
    ~Name_Watch() { end(); }
    Name_Watch(const Name_Watch&) = delete;
    Name_Watch& operator=(const Name_Watch&) = delete;

    /// Watches the folder; while there is none, the nearest folder above it. Whoever wants to miss
    /// nothing looks at the name behind this and sleeps then. Does nothing more when it has begun.
    void begin(const std::string& folder);
    void end();

    /// Returns when a name was given in the folder, at a wake, or at the deadline.
    ///
    /// @param deadline_ns  of CLOCK_MONOTONIC
    void sleep(std::int64_t deadline_ns);

    /// Ends a sleep.
    void wake();

private:
    void forget_folder();
    void take_events();

    std::string folder_;  // that is watched
    int watch_ = -1;      // of it
    int names_ = -1;      // inotify

    // Held for a few instructions, where `wakes_` changes and where wake() uses it; the sleeping
    // thread alone changes it, and reads it without the mutex.
    Mutex mutex_;
    int wakes_ = -1;  // eventfd
};

}  // namespace zav_shm
