// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ipc/annotated_mutex.h"

namespace zav_shm::gst {

/// What several streams of one producer agree on: which moment of CLOCK_MONOTONIC the presentation
/// time 0 is. It is one sum for all of them, so that what was simultaneous at the producer is
/// simultaneous in the pipeline to the nanosecond, however late the one or the other encoder is.
///
/// It is decided when each member has a frame, or `wait_ns` after the first one has. Later members
/// take what was decided. A member whose presentation times have another origin than those of the
/// others (by more than `origin_max_ns`) gets a decision of its own.
///
/// Threads  any.
/// Blocking no call waits: decide() says that there is no decision yet.
class Timeline {
public:
    static constexpr std::int64_t wait_ns = 200'000'000;
    static constexpr std::int64_t origin_max_ns = 3'000'000'000;

    /// A frame, and when it is to be presented at the earliest.
    struct Offer {
        std::int64_t pts_ns = 0;
        std::int64_t publish_ns = 0;   // CLOCK_MONOTONIC
        std::int64_t earliest_ns = 0;  // CLOCK_MONOTONIC

        std::int64_t origin_ns() const { return publish_ns - pts_ns; }
    };

    struct Decision {
        std::int64_t offset_ns = 0;  // CLOCK_MONOTONIC at presentation time 0
        std::int64_t origin_ns = 0;  // publish_ns - pts_ns of the frame that it was made for
        std::uint64_t version = 0;   // greater with each new decision
        bool is_shared = true;       // false: this member's alone
    };

    /// The timeline of this name below this owner (a pipeline), while somebody holds it.
    static std::shared_ptr<Timeline> of(const void* owner, const std::string& name);

    int join();
    void leave(int member);

    /// Offers the first frame; to be called again while there is no decision.
    std::optional<Decision> decide(int member, const Offer& offer, std::int64_t now_ns);

    /// Decides anew behind a jump of the presentation times, unless another member has done so and
    /// its decision fits.
    Decision renew(const Offer& offer, const Decision& mine);

    /// Moves all members by so much.
    Decision shift(std::int64_t by_ns, const Decision& mine);

    /// What another member has decided since, if it is for this stream, too.
    std::optional<Decision> newer_than(const Decision& mine, std::int64_t origin_ns) const;

private:
    static bool is_near(std::int64_t left_ns, std::int64_t right_ns);

    mutable Mutex mutex_;
    std::map<int, std::optional<Offer>> members_ ZAV_SHM_GUARDED_BY(mutex_);
    int next_member_ ZAV_SHM_GUARDED_BY(mutex_) = 0;
    std::int64_t first_offer_ns_ ZAV_SHM_GUARDED_BY(mutex_) = 0;
    std::optional<Decision> decision_ ZAV_SHM_GUARDED_BY(mutex_);
};

}  // namespace zav_shm::gst
