// SPDX-License-Identifier: Apache-2.0
#include "gst/running_clock.h"

#include "ipc/monotonic_clock.h"

namespace zav_shm::gst {

namespace {

constexpr std::int64_t drift_max_ns = 20'000'000;

// Others derive from it, a sound card's clock among them. A clock that follows another one has a
// calibration.
bool is_system_monotonic(GstClock* clock) {
    if (G_OBJECT_TYPE(clock) != GST_TYPE_SYSTEM_CLOCK) {
        return false;
    }
    GstClockType type = GST_CLOCK_TYPE_OTHER;
    g_object_get(clock, "clock-type", &type, nullptr);
    GstClockTime internal = 0;
    GstClockTime external = 0;
    GstClockTime numerator = 1;
    GstClockTime denominator = 1;
    gst_clock_get_calibration(clock, &internal, &external, &numerator, &denominator);
    return type == GST_CLOCK_TYPE_MONOTONIC && internal == external && numerator == denominator;
}

}  // namespace

void Running_Clock::set_clock(GstClock* clock) {
    if (clock_ != nullptr) {
        gst_object_unref(clock_);
    }
    clock_ = clock;
}

void Running_Clock::take() {
    set_clock(gst_element_get_clock(element_));
    is_monotonic_ = clock_ == nullptr || is_system_monotonic(clock_);
    base_ns_ = base_time();
    difference_ns_ = difference();
}

void Running_Clock::keep_running_time() {
    const std::int64_t base = base_time();
    difference_ns_ += base - base_ns_.value_or(base);
    base_ns_ = base;
}

std::int64_t Running_Clock::difference() const {
    return is_monotonic_ ? 0
                         : static_cast<std::int64_t>(gst_clock_get_time(clock_)) - monotonic_ns();
}

bool Running_Clock::follow_drift() {
    const std::int64_t now = difference();
    if (now - difference_ns_ <= drift_max_ns && difference_ns_ - now <= drift_max_ns) {
        return false;
    }
    difference_ns_ = now;
    return true;
}

}  // namespace zav_shm::gst
