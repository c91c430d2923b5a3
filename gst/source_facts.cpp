// SPDX-License-Identifier: Apache-2.0
//
// What zavsrc says of itself: properties, statistics, latency, messages.
#include <algorithm>

#include "gst/format_caps.h"
#include "gst/source.h"

namespace zav_shm::gst {

namespace {

constexpr std::int64_t learning_ns = 2'000'000'000;
constexpr std::int64_t learned_max_ns = 500'000'000;
constexpr std::int64_t learning_step_ns = 2'000'000;

}  // namespace

bool Source::set_property(guint id, const GValue* value) {
    const Guard guard(mutex_);
    if (id == source_caps) {
        gst_caps_replace(&given_caps_, const_cast<GstCaps*>(gst_value_get_caps(value)));
        return true;
    }
    return set_setting(settings_, id, value);
}

bool Source::get_property(guint id, GValue* value) const {
    if (id == source_stats) {
        g_value_take_boxed(value, statistics());
        return true;
    }
    const Guard guard(mutex_);
    if (id == source_caps) {
        gst_value_set_caps(value, given_caps_);
        return true;
    }
    return get_setting(settings_, id, value);
}

GstCaps* Source::caps() const {
    const Guard guard(mutex_);
    if (given_caps_ != nullptr) {
        return gst_caps_ref(given_caps_);
    }
    return stream_caps_ != nullptr ? gst_caps_ref(stream_caps_) : all_caps();
}

std::shared_ptr<ZAV_SHM_Frame_Subscriber> Source::subscriber() const {
    const Guard guard(mutex_);
    return subscriber_;
}

void Source::request_key_frame() const {
    if (const auto subscriber = this->subscriber()) {
        subscriber->request_key_frame();
    }
}

GstStructure* Source::statistics() const {
    const auto subscriber = this->subscriber();
    const Subscriber_Counters counters =
        subscriber ? subscriber->counters() : Subscriber_Counters{};
    const Frame_State state = subscriber ? subscriber->state() : Frame_State::closed;
    const std::string reason = subscriber ? subscriber->reason() : std::string();
    GstStructure* const all =
        gst_structure_new("zavsrc-stats", "state", G_TYPE_STRING, name_of(state), "reason",
                          G_TYPE_STRING, reason.c_str(), "latency", G_TYPE_UINT64,
                          static_cast<guint64>(latency_ns_.load()), nullptr);
    const auto add = [all](const char* name, std::uint64_t value) {
        gst_structure_set(all, name, G_TYPE_UINT64, guint64{value}, nullptr);
    };
    add("frames", counters.frames);
    add("bytes", counters.bytes);
    add("key-frames", counters.key_frames);
    add("overtaken", counters.overtaken);
    add("left-out", counters.left_out);
    add("no-memory", counters.no_memory);
    add("dropped", counters.dropped);
    add("skipped", counters.skipped);
    add("discarded", discarded_);
    add("torn", counters.torn);
    add("invalid", counters.invalid);
    add("foreign", counters.foreign);
    add("recoveries", counters.recoveries);
    return all;
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

GstFlowReturn Source::fail(int code, const std::string& text, const std::string& detail) const {
    gst_element_message_full(GST_ELEMENT(element_), GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, code,
                             g_strdup(text.c_str()), g_strdup(detail.c_str()), __FILE__, __func__,
                             __LINE__);
    return GST_FLOW_ERROR;
}

void Source::post(GstStructure* fields) const {
    gst_element_post_message(GST_ELEMENT(element_),
                             gst_message_new_element(GST_OBJECT(element_), fields));
}

}  // namespace zav_shm::gst
