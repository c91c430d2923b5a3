// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "frame/received_frame.h"
#include "gst/timeline.h"

namespace zav_shm::gst {

/// From the presentation times of one stream to CLOCK_MONOTONIC: one constant is added, so that
/// differences stay what they are. It changes when the presentation times jump, and when the
/// stream's clock and this device's have drifted apart; both are told as discontinuities.
///
/// Threads  one at a time.
class Stream_Clock {
public:
    /// What the first frame's time becomes.
    enum class Align {
        first,  // the moment at which it is taken: nothing is late, and a stream that is read from
                // the past stays as far behind as it began
        live    // the moment of its publication: what comes out of a history is late
    };

    /// What a frame's presentation time is taken from.
    enum class Source {
        stream,      // pts_ns; of frames that have none, the moment of publication
        monotonic,   // pts_ns, which is CLOCK_MONOTONIC already
        publication  // the moment of publication
    };

    // How far apart stream and device may drift, and how long all frames have to say so.
    static constexpr std::int64_t drift_max_ns = 200'000'000;
    static constexpr std::int64_t drift_window_ns = 5'000'000'000;

    Stream_Clock(std::shared_ptr<Timeline> timeline, Align align, Source source);
    ~Stream_Clock();
    Stream_Clock(const Stream_Clock&) = delete;
    Stream_Clock& operator=(const Stream_Clock&) = delete;

    struct Presented {
        std::int64_t time_ns = 0;      // CLOCK_MONOTONIC
        bool is_another_time = false;  // the constant is not the former frame's
        bool goes_on = true;           // unless the presentation times jumped
    };

    /// When this frame is to be presented; nothing while the other streams of the timeline are
    /// waited for: then to be called again with the same frame.
    std::optional<Presented> present(const Frame_Facts& frame, std::int64_t now_ns);

    /// The next frame is presented as if it were the first.
    void begin_anew() { decision_.reset(); }

private:
    struct Last {
        std::int64_t pts_ns = 0;
        std::int64_t publish_ns = 0;
        std::int64_t raw_pts_ns = 0;
        std::int64_t end_ns = 0;  // CLOCK_MONOTONIC: when its presentation is over
    };

    std::int64_t pts_of(const Frame_Facts& frame) const;
    Timeline::Offer offer_of(const Frame_Facts& frame, std::int64_t now_ns) const;
    bool jumps(const Frame_Facts& frame, std::int64_t pts_ns, std::int64_t publish_ns) const;
    void follow_drift(std::int64_t pts_ns, std::int64_t publish_ns);

    const std::shared_ptr<Timeline> timeline_;
    const Align align_;
    const Source source_;
    const int member_;
    std::optional<Timeline::Decision> decision_;
    std::optional<Last> last_;

    // How late frames were published since the window began.
    std::optional<std::int64_t> window_begin_ns_;
    std::int64_t least_late_ns_ = 0;
    std::int64_t most_late_ns_ = 0;
};

}  // namespace zav_shm::gst
