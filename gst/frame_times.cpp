// SPDX-License-Identifier: Apache-2.0
#include "gst/frame_times.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace zav_shm::gst {

namespace {

using std::chrono::nanoseconds;

// What the header holds: 71 minutes.
constexpr std::chrono::microseconds duration_max{std::numeric_limits<std::uint32_t>::max()};

nanoseconds nanoseconds_of(GstClockTime time) { return nanoseconds(static_cast<gint64>(time)); }

std::optional<nanoseconds> running_time_of(const GstSegment& segment, GstClockTime pts) {
    if (!GST_CLOCK_TIME_IS_VALID(pts) || segment.format != GST_FORMAT_TIME) {
        return std::nullopt;
    }
    guint64 distance = 0;
    const int sign = gst_segment_to_running_time_full(&segment, GST_FORMAT_TIME, pts, &distance);
    if (sign == 0) {
        return std::nullopt;
    }
    return sign > 0 ? nanoseconds_of(distance) : -nanoseconds_of(distance);
}

std::optional<nanoseconds> running_time_now(GstElement* element) {
    GstClock* const clock = gst_element_get_clock(element);
    if (clock == nullptr) {
        return std::nullopt;
    }
    const GstClockTime now = gst_clock_get_time(clock);
    gst_object_unref(clock);
    return nanoseconds_of(now) - nanoseconds_of(gst_element_get_base_time(element));
}

std::optional<nanoseconds> reference_utc(GstBuffer* buffer) {
    static GstStaticCaps unix_time = GST_STATIC_CAPS("timestamp/x-unix");
    GstCaps* const caps = gst_static_caps_get(&unix_time);
    const auto* const meta = gst_buffer_get_reference_timestamp_meta(buffer, caps);
    gst_caps_unref(caps);
    if (meta == nullptr || !GST_CLOCK_TIME_IS_VALID(meta->timestamp)) {
        return std::nullopt;
    }
    return nanoseconds_of(meta->timestamp);
}

}  // namespace

Frame_Info times_of(GstBaseSink* sink, GstBuffer* buffer, bool takes_utc_from_clock) {
    GstElement* const element = GST_ELEMENT_CAST(sink);
    Frame_Info info;
    const auto pts = running_time_of(sink->segment, GST_BUFFER_PTS(buffer));
    const auto now = pts && !takes_utc_from_clock ? std::nullopt : running_time_now(element);
    info.pts = pts ? *pts : now.value_or(nanoseconds(0));
    if (const auto utc = reference_utc(buffer)) {
        info.utc = *utc;
    } else if (takes_utc_from_clock) {
        const auto wall = std::chrono::microseconds(g_get_real_time());
        info.utc = wall - (now ? *now - info.pts : nanoseconds(0));
    }
    if (GST_BUFFER_DURATION_IS_VALID(buffer)) {
        info.duration =
            std::min(duration_max, std::chrono::duration_cast<std::chrono::microseconds>(
                                       nanoseconds_of(GST_BUFFER_DURATION(buffer))));
    }
    return info;
}

}  // namespace zav_shm::gst
