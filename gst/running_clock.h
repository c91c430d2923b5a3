// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <optional>

namespace zav_shm::gst {

/// From CLOCK_MONOTONIC to the running time of an element's pipeline: a constant, until the
/// pipeline is paused, gets another clock, or its clock has drifted away.
///
/// Threads  one at a time.
class Running_Clock {
public:
    explicit Running_Clock(GstElement* element) : element_(element) {}
    ~Running_Clock() { set_clock(nullptr); }
    Running_Clock(const Running_Clock&) = delete;
    Running_Clock& operator=(const Running_Clock&) = delete;

    /// True when the pipeline's base time is not the one that was taken last.
    bool was_restarted() const { return base_ns_ != base_time(); }

    /// Takes the pipeline's clock and base time as they are now.
    void take();

    /// Takes the base time, and no notice of how long the pipeline was paused.
    void keep_running_time();

    /// Takes the clock's drift when it has become so great that it matters.
    ///
    /// @return true when it has
    bool follow_drift();

    std::int64_t running_ns(std::int64_t monotonic) const {
        return monotonic + difference_ns_ - base_ns_.value_or(0);
    }

private:
    std::int64_t base_time() const {
        return static_cast<std::int64_t>(gst_element_get_base_time(element_));
    }
    void set_clock(GstClock* clock);
    std::int64_t difference() const;

    GstElement* const element_;
    GstClock* clock_ = nullptr;
    bool is_monotonic_ = true;  // the clock is CLOCK_MONOTONIC itself
    std::optional<std::int64_t> base_ns_;
    std::int64_t difference_ns_ = 0;  // from CLOCK_MONOTONIC to the clock
};

}  // namespace zav_shm::gst
