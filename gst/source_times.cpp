// SPDX-License-Identifier: Apache-2.0
//
// The times of what zavsrc hands on, and its latency.
#include <algorithm>
#include <chrono>

#include "gst/format_caps.h"
#include "gst/source.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::gst {

namespace {

constexpr std::int64_t learning_ns = 2'000'000'000;
constexpr std::int64_t learned_max_ns = 500'000'000;
constexpr std::int64_t learning_step_ns = 2'000'000;

// What gap events leave to the next frame, which may be early.
constexpr std::int64_t gap_margin_ns = 100'000'000;

// Between two pictures where the stream does not say it.
constexpr std::chrono::milliseconds picture_interval{40};

std::chrono::nanoseconds interval_of(const ZAV_SHM_Frame_Header& header) {
    if (header.duration_us != 0) {
        return std::chrono::microseconds(header.duration_us);
    }
    return header.rate_num != 0 && header.rate_den != 0
               ? std::chrono::nanoseconds(ns_per_second * header.rate_den / header.rate_num)
               : picture_interval;
}

}  // namespace

// GStreamer's times are not negative. Where a frame's is, the segment begins later by whole
// seconds: the frame is before its begin, and running times stay what they are.
void Source::give_times(GstBuffer* buffer, const Stream_Clock::Presented& presented) {
    const bool follows_clock = used_.alignment() == Stream_Clock::Align::live;
    if (follows_clock && running_.follow_drift()) {
        is_discontinuous_ = true;
    }
    const std::int64_t running_ns = running_.running_ns(presented.time_ns);
    const std::int64_t decoding_ns = decoding_running_ns(running_ns);
    if (decoding_ns + shift_ns_ < 0) {
        shift_ns_ = (-decoding_ns / ns_per_second + 1) * ns_per_second;
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        segment.start = segment.position = static_cast<guint64>(shift_ns_);
        gst_base_src_new_segment(element_, &segment);
    }
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(running_ns + shift_ns_);
    if (decoding_) {
        GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(decoding_ns + shift_ns_);
    }
    end_ns_ = running_ns + (GST_BUFFER_DURATION_IS_VALID(buffer)
                                ? static_cast<std::int64_t>(GST_BUFFER_DURATION(buffer))
                                : 0);
    lag_ns_ = running_.running_ns(last_frame_ns_) - running_ns;
}

std::int64_t Source::decoding_running_ns(std::int64_t running_ns) {
    if (!decoding_) {
        return running_ns;
    }
    const auto decoding = decoding_->next(frame_->payload(), std::chrono::nanoseconds(running_ns),
                                          interval_of(frame_->header));
    return decoding.count();
}

// Pictures of other codecs come as they are presented.
void Source::follow_reordering() {
    decoding_.reset();
    if (format_->codec == codec::h264 || format_->codec == codec::h265) {
        decoding_.emplace(format_->codec == codec::h264 ? media::Video_Codec::h264
                                                        : media::Video_Codec::h265);
    }
}

// Of what has frames that depend on others it would empty a decoder, which then could not go on.
void Source::send_gap(std::int64_t now_ns) {
    if (!has_had_frame_ || !format_ || !is_every_frame_a_key_frame(format_->codec)) {
        return;
    }
    const std::int64_t until_ns = running_.running_ns(now_ns) - lag_ns_ - gap_margin_ns;
    if (until_ns <= end_ns_) {
        return;
    }
    gst_pad_push_event(GST_BASE_SRC_PAD(element_),
                       gst_event_new_gap(static_cast<GstClockTime>(end_ns_ + shift_ns_),
                                         static_cast<GstClockTime>(until_ns - end_ns_)));
    end_ns_ = until_ns;
}

void Source::answer_latency(GstQuery* query) const {
    gst_query_set_latency(query, TRUE, static_cast<GstClockTime>(latency_ns_.load()),
                          GST_CLOCK_TIME_NONE);
}

// How much later than it says a frame comes. What comes out of the history says nothing of that.
void Source::learn_latency(const Stream_Clock::Presented& presented, std::int64_t now_ns) {
    if (!has_had_frame_) {
        learning_until_ns_ = now_ns + learning_ns;
    }
    const bool is_from_history =
        frame_->verified && frame_->header.publish_ns < learning_until_ns_ - learning_ns;
    if (used_.latency_ms >= 0 || now_ns > learning_until_ns_ || is_from_history) {
        return;
    }
    const std::int64_t late_ns = now_ns - presented.time_ns;
    if (late_ns <= latency_ns_ || late_ns > learned_max_ns) {
        return;
    }
    latency_ns_ = late_ns + learning_step_ns;
    gst_element_post_message(GST_ELEMENT(element_), gst_message_new_latency(GST_OBJECT(element_)));
}

}  // namespace zav_shm::gst
