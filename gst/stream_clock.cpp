// SPDX-License-Identifier: Apache-2.0
#include "gst/stream_clock.h"

#include <algorithm>
#include <utility>

namespace zav_shm::gst {

namespace {

constexpr std::int64_t ns_per_us = 1000;

// Presentation times go back a little where pictures are reordered, and forward as time does.
constexpr std::int64_t back_max_ns = 1'000'000'000;
constexpr std::int64_t forward_max_ns = 5'000'000'000;

// A successor that goes on with its predecessor's presentation times does so this exactly.
constexpr std::int64_t successor_max_ns = 500'000'000;

// Times that no stream has; sums of the others do not overflow.
constexpr std::int64_t time_max_ns = INT64_MAX / 8;

std::int64_t sane(std::int64_t time_ns) {
    return std::clamp<std::int64_t>(time_ns, -time_max_ns, time_max_ns);
}

// Of a producer of the fixed interface nothing but the moment at which its frame came is known.
// None has published what is still to come.
std::int64_t publication_of(const Frame_Facts& frame) {
    return sane(frame.verified ? std::min(frame.header.publish_ns, frame.received_ns)
                               : frame.received_ns);
}

}  // namespace

Stream_Clock::Stream_Clock(std::shared_ptr<Timeline> timeline, Align align, Source source)
    : timeline_(std::move(timeline)), align_(align), source_(source), member_(timeline_->join()) {}

Stream_Clock::~Stream_Clock() { timeline_->leave(member_); }

// A publisher that does not tell presentation times leaves all of them 0.
std::int64_t Stream_Clock::pts_of(const Frame_Facts& frame) const {
    const bool has_none = !frame.verified || (frame.header.pts_ns == 0 && last_ &&
                                              !frame.epoch_changed && last_->raw_pts_ns == 0);
    return source_ == Source::publication || (source_ == Source::stream && has_none)
               ? publication_of(frame)
               : sane(frame.header.pts_ns);
}

Timeline::Offer Stream_Clock::offer_of(const Frame_Facts& frame, std::int64_t now_ns) const {
    Timeline::Offer offer{pts_of(frame), publication_of(frame), 0};
    offer.earliest_ns = align_ == Align::live ? offer.publish_ns : now_ns;
    if (last_) {
        offer.earliest_ns = std::max(offer.earliest_ns, last_->end_ns);
    }
    return offer;
}

bool Stream_Clock::jumps(const Frame_Facts& frame, std::int64_t pts_ns,
                         std::int64_t publish_ns) const {
    const std::int64_t forward = pts_ns - last_->pts_ns;
    const std::int64_t elapsed = publish_ns - last_->publish_ns;
    if (frame.epoch_changed) {
        return forward <= 0 || forward - elapsed > successor_max_ns ||
               elapsed - forward > successor_max_ns;
    }
    return forward < -back_max_ns || forward > std::max<std::int64_t>(elapsed, 0) + forward_max_ns;
}

std::optional<Stream_Clock::Presented> Stream_Clock::present(const Frame_Facts& frame,
                                                             std::int64_t now_ns) {
    const std::int64_t pts_ns = pts_of(frame);
    const std::int64_t publish_ns = publication_of(frame);
    const auto former = decision_;
    bool goes_on = true;
    if (source_ == Source::monotonic) {
        decision_ = {0, 0, 0, false};
    } else if (!decision_) {
        decision_ = timeline_->decide(member_, offer_of(frame, now_ns), now_ns);
        if (!decision_) {
            return {};
        }
    } else if (last_ && jumps(frame, pts_ns, publish_ns)) {
        decision_ = timeline_->renew(offer_of(frame, now_ns), *decision_);
        window_begin_ns_.reset();
        goes_on = false;
    } else if (const auto newer = timeline_->newer_than(*decision_, publish_ns - pts_ns)) {
        decision_ = newer;
        window_begin_ns_.reset();
    } else if (align_ == Align::live) {
        follow_drift(pts_ns, publish_ns);
    }
    const std::int64_t time_ns = pts_ns + decision_->offset_ns;
    const std::int64_t end_ns = time_ns + std::int64_t{frame.header.duration_us} * ns_per_us;
    last_ = {pts_ns, publish_ns, frame.verified ? frame.header.pts_ns : 0,
             last_ && goes_on ? std::max(last_->end_ns, end_ns) : end_ns};
    return Presented{time_ns, !former || former->offset_ns != decision_->offset_ns, goes_on};
}

// All frames of a window have to be late, or early: one that comes late says nothing of the clocks.
// Forward it goes at once; back by half a frame's distance at most, as times may not go back.
void Stream_Clock::follow_drift(std::int64_t pts_ns, std::int64_t publish_ns) {
    const std::int64_t late_ns = publish_ns - (pts_ns + decision_->offset_ns);
    if (!window_begin_ns_) {
        window_begin_ns_ = publish_ns;
        least_late_ns_ = most_late_ns_ = late_ns;
    }
    least_late_ns_ = std::min(least_late_ns_, late_ns);
    most_late_ns_ = std::max(most_late_ns_, late_ns);
    if (publish_ns - *window_begin_ns_ < drift_window_ns) {
        return;
    }
    window_begin_ns_.reset();
    if (least_late_ns_ > drift_max_ns) {
        decision_ = timeline_->shift(least_late_ns_, *decision_);
    } else if (most_late_ns_ < -drift_max_ns && pts_ns > last_->pts_ns) {
        decision_ =
            timeline_->shift(std::max(most_late_ns_, -(pts_ns - last_->pts_ns) / 2), *decision_);
    }
}

}  // namespace zav_shm::gst
