// SPDX-License-Identifier: Apache-2.0
//
// What zavsrc says of itself: properties, statistics, messages.
#include <algorithm>

#include "gst/format_caps.h"
#include "gst/source.h"

namespace zav_shm::gst {

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
