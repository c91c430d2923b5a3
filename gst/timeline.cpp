// SPDX-License-Identifier: Apache-2.0
#include "gst/timeline.h"

#include <algorithm>
#include <utility>

namespace zav_shm::gst {

namespace {

struct Known_Timelines {
    Mutex mutex;
    std::map<std::pair<const void*, std::string>, std::weak_ptr<Timeline>> by_owner
        ZAV_SHM_GUARDED_BY(mutex);
};

Known_Timelines& known() {
    static Known_Timelines timelines;
    return timelines;
}

Timeline::Decision own_decision(const Timeline::Offer& offer) {
    return {offer.earliest_ns - offer.pts_ns, offer.origin_ns(), 0, false};
}

}  // namespace

std::shared_ptr<Timeline> Timeline::of(const void* owner, const std::string& name) {
    auto& all = known();
    const Guard guard(all.mutex);
    std::erase_if(all.by_owner, [](const auto& entry) { return entry.second.expired(); });
    auto& entry = all.by_owner[{owner, name}];
    auto timeline = entry.lock();
    if (!timeline) {
        timeline = std::make_shared<Timeline>();
        entry = timeline;
    }
    return timeline;
}

int Timeline::join() {
    const Guard guard(mutex_);
    members_[next_member_];
    return next_member_++;
}

void Timeline::leave(int member) {
    const Guard guard(mutex_);
    members_.erase(member);
}

bool Timeline::is_near(std::int64_t left_ns, std::int64_t right_ns) {
    return left_ns - right_ns <= origin_max_ns && right_ns - left_ns <= origin_max_ns;
}

std::optional<Timeline::Decision> Timeline::decide(int member, const Offer& offer,
                                                   std::int64_t now_ns) {
    const Guard guard(mutex_);
    if (!decision_) {
        const bool is_first = std::none_of(members_.begin(), members_.end(), [](const auto& entry) {
            return entry.second.has_value();
        });
        if (is_first) {
            first_offer_ns_ = now_ns;
        }
        members_[member] = offer;
        const bool all_have = std::all_of(members_.begin(), members_.end(), [](const auto& entry) {
            return entry.second.has_value();
        });
        if (!all_have && now_ns - first_offer_ns_ < wait_ns) {
            return {};
        }
        // The latest of them, so that no member's first frame is presented before its time.
        Decision decision{offer.earliest_ns - offer.pts_ns, offer.origin_ns(), 1, true};
        for (const auto& [number, other] : members_) {
            if (other && is_near(other->origin_ns(), decision.origin_ns)) {
                decision.offset_ns =
                    std::max(decision.offset_ns, other->earliest_ns - other->pts_ns);
            }
        }
        decision_ = decision;
    }
    return is_near(offer.origin_ns(), decision_->origin_ns) ? *decision_ : own_decision(offer);
}

Timeline::Decision Timeline::renew(const Offer& offer, const Decision& mine) {
    if (!mine.is_shared) {
        return own_decision(offer);
    }
    const Guard guard(mutex_);
    if (decision_ && decision_->version > mine.version &&
        is_near(offer.origin_ns(), decision_->origin_ns)) {
        return *decision_;
    }
    decision_ = {offer.earliest_ns - offer.pts_ns, offer.origin_ns(),
                 (decision_ ? decision_->version : mine.version) + 1, true};
    return *decision_;
}

Timeline::Decision Timeline::shift(std::int64_t by_ns, const Decision& mine) {
    Decision moved = mine;
    moved.offset_ns += by_ns;
    moved.origin_ns += by_ns;
    if (!mine.is_shared) {
        return moved;
    }
    const Guard guard(mutex_);
    if (!decision_ || decision_->version == mine.version) {
        ++moved.version;
        decision_ = moved;
    }
    return *decision_;
}

std::optional<Timeline::Decision> Timeline::newer_than(const Decision& mine,
                                                       std::int64_t origin_ns) const {
    if (!mine.is_shared) {
        return {};
    }
    const Guard guard(mutex_);
    if (!decision_ || decision_->version <= mine.version ||
        !is_near(origin_ns, decision_->origin_ns)) {
        return {};
    }
    return decision_;
}

}  // namespace zav_shm::gst
