// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "frame/link/consumer_route.h"
#include "ipc/annotated_mutex.h"
#include "ipc/descriptor.h"
#include "ring/ring_follower.h"

namespace zav_shm {

/// A descriptor for event loops: readable while a subscriber may have something to receive. Its
/// thread waits in the place of the subscriber, which says each time that it has found nothing.
///
/// Owner    of the descriptor and the thread "zav_poll".
/// Threads  nothing_left() from the one that receives.
class Frame_Poll {
public:
    /// @return null when descriptor or thread cannot be had; readable at first
    static std::unique_ptr<Frame_Poll> begin();
    ~Frame_Poll();
    Frame_Poll(const Frame_Poll&) = delete;
    Frame_Poll& operator=(const Frame_Poll&) = delete;

    int descriptor() const { return readable_.get(); }

    /// Where nothing was found.
    struct Place {
        std::shared_ptr<const Ring_Memory> ring;  // null while there is none
        std::uint64_t next = 0;                   // number of the record that would come
        std::string path;                         // of the ring
        Consumer_Route route;                     // as it was looked at
    };

    /// The descriptor is not readable any more until there may be something again: the next record
    /// in the ring, another ring of that name, or a change of the route.
    void nothing_left(Place place);

private:
    Frame_Poll() = default;
    void run();
    std::shared_ptr<Ring_Follower> wait_for_place();
    void watch_place(Ring_Follower& follower);
    bool is_stopping();
    static bool has_something(Place& place, Ring_Follower& follower);

    Descriptor readable_;  // eventfd
    std::thread thread_;

    Mutex mutex_;
    std::condition_variable changed_;  // notified when one of the next three is
    Place place_ ZAV_SHM_GUARDED_BY(mutex_);
    bool waits_ ZAV_SHM_GUARDED_BY(mutex_) = false;  // for something at that place
    bool stopping_ ZAV_SHM_GUARDED_BY(mutex_) = false;
    std::shared_ptr<Ring_Follower> follower_ ZAV_SHM_GUARDED_BY(mutex_);  // that is slept in
};

}  // namespace zav_shm
