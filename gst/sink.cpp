// SPDX-License-Identifier: Apache-2.0
#include "gst/sink.h"

#include <gst/video/video.h>

#include <string_view>
#include <utility>

#include "gst/format_caps.h"
#include "gst/frame_times.h"
#include "gst/loan_pool.h"

using namespace std::chrono_literals;

namespace zav_shm::gst {

namespace {

// A stream of which every frame is too long would fill the bus.
constexpr auto told_interval = 1s;

// "zavsink0" and so on: nobody has chosen the name.
bool is_automatic(std::string_view name) {
    constexpr std::string_view prefix = "zavsink";
    if (!name.starts_with(prefix)) {
        return false;
    }
    name.remove_prefix(prefix.size());
    return !name.empty() && name.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string element_name(GstBaseSink* element) {
    gchar* const name = gst_object_get_name(GST_OBJECT_CAST(element));
    std::string text = name != nullptr ? name : "";
    g_free(name);
    return text;
}

std::string text_of(GstCaps* caps) {
    gchar* const text = gst_caps_to_string(caps);
    std::string copy = text;
    g_free(text);
    return copy;
}

const char* message_of(Frame_State state) {
    switch (state) {
        case Frame_State::connected:
            return "zavsink-center-found";
        case Frame_State::waiting_for_center:
            return "zavsink-center-lost";
        case Frame_State::refused:
        case Frame_State::no_ring:
            return "zavsink-refused";
        default:
            return nullptr;
    }
}

bool is_alone(GstBuffer* buffer) {
    if (GST_MINI_OBJECT_REFCOUNT_VALUE(buffer) != 1) {
        return false;
    }
    for (guint i = 0; i < gst_buffer_n_memory(buffer); ++i) {
        if (GST_MINI_OBJECT_REFCOUNT_VALUE(gst_buffer_peek_memory(buffer, i)) != 1) {
            return false;
        }
    }
    return true;
}

// Of a raw picture; 0 for everything else, whose frames differ in length.
gsize picture_bytes(const GstCaps* caps) {
    std::string unknown;
    const auto format = format_of(caps, unknown);
    return format ? payload_bytes_of(*format) : 0;
}

}  // namespace

// ---- start and stop ----

bool Sink::start() {
    used_ = settings();
    if (used_.producer.empty()) {
        used_.producer = element_name(element_);
        if (is_automatic(used_.producer)) {
            GST_ELEMENT_ERROR(element_, RESOURCE, SETTINGS,
                              ("No producer: set its name, as configured in the center"),
                              ("property \"producer\", or the name of the element"));
            return false;
        }
    }
    const auto opened = std::make_shared<Sink_Stream>(used_.publisher_options());
    {
        const Guard guard(mutex_);
        stream_ = opened;
        key_requests_ = 0;
    }
    is_discontinuous_ = false;
    end_pts_ = 0ns;
    dropped_ = 0;
    dropped_told_ = {};
    static_cast<void>(opened->open());  // works in any case; where it stands is told
    tell_state();
    return true;
}

void Sink::stop() {
    if (const auto ended = stream()) {
        ended->close();
    }
}

// ---- what comes from upstream ----

bool Sink::set_caps(GstCaps* caps) {
    std::string reason;
    const auto format = format_of(caps, reason);
    if (format) {
        reason = why_not(caps).value_or("");
    }
    if (!reason.empty()) {
        post("zavsink-refused",
             gst_structure_new("f", "reason", G_TYPE_STRING, reason.c_str(), nullptr));
        GST_ELEMENT_ERROR(element_, STREAM, FORMAT, ("%s", reason.c_str()),
                          ("caps %s", text_of(caps).c_str()));
        return false;
    }
    stream()->set_format(*format);
    stream()->begin_lending();
    return true;
}

// Pictures that all have one length would all be dropped.
std::optional<std::string> Sink::why_not(GstCaps* caps) const {
    const gsize bytes = picture_bytes(caps);
    const gsize limit = stream()->page_bytes();
    if (bytes == 0 || limit == 0 || bytes <= limit) {
        return std::nullopt;
    }
    return "pictures of " + std::to_string(bytes) + " bytes, the limit of " + used_.producer + "/" +
           std::to_string(used_.channel) + "/" + std::to_string(used_.stream) + " is " +
           std::to_string(limit) +
           ": raise \"unit-limit\", or page_size in the center's "
           "configuration";
}

GstFlowReturn Sink::render(GstBuffer* buffer) {
    if (gst_buffer_get_size(buffer) == 0) {
        return GST_FLOW_OK;  // a gap, which the times of the next frame show
    }
    const Sink_Stream::Frame frame = frame_of(buffer);
    const Sink_Stream::Result result = offer(buffer, frame);
    end_pts_ = frame.info.pts + frame.info.duration;
    is_discontinuous_ = false;
    tell_state();
    if (!result.published()) {
        tell_dropped(result);
    }
    pass_on_key_request();
    return GST_FLOW_OK;
}

Sink_Stream::Frame Sink::frame_of(GstBuffer* buffer) {
    Sink_Stream::Frame frame;
    frame.info = times_of(element_, buffer, used_.takes_utc_from_clock);
    if (is_discontinuous_ || GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT)) {
        frame.info.flags = frame_flag::discontinuity;
    }
    frame.is_entry = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    frame.is_of_pool = is_of_loan_pool(buffer);
    frame.is_alone = is_alone(buffer);
    return frame;
}

Sink_Stream::Result Sink::offer(GstBuffer* buffer, const Sink_Stream::Frame& frame) {
    const auto to = stream();
    const gsize bytes = gst_buffer_get_size(buffer);
    const Loaned loaned = loan_of(buffer);
    if (loaned.loan != nullptr) {
        return to->commit(*loaned.loan, bytes, frame);
    }
    if (loaned.is_piece) {
        return to->leave_out(bytes, "it is a piece of what was lent to an element upstream");
    }
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE) {
        return to->leave_out(bytes, "its memory cannot be read");
    }
    auto result = to->write(std::as_bytes(std::span(map.data, map.size)), frame);
    gst_buffer_unmap(buffer, &map);
    return result;
}

void Sink::see_event(GstEvent* event) {
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_EOS:
            stream()->write_end(end_pts_);
            break;
        case GST_EVENT_FLUSH_STOP:
            is_discontinuous_ = true;
            break;
        default:
            break;
    }
}

bool Sink::propose_allocation(GstQuery* query) {
    GstCaps* caps = nullptr;
    gboolean needs_pool = FALSE;
    gst_query_parse_allocation(query, &caps, &needs_pool);
    const auto to = stream();
    if (!used_.lends || needs_pool == FALSE || caps == nullptr || !to) {
        return true;
    }
    const gsize bytes = picture_bytes(caps);
    if (bytes == 0 || bytes > G_MAXUINT) {
        return true;  // what an encoder makes has its length afterwards
    }
    const auto size = static_cast<guint>(bytes);
    GstBufferPool* const pool = new_loan_pool(to, caps, size);
    gst_query_add_allocation_pool(query, pool, size, 0, 0);
    gst_object_unref(pool);
    return true;
}

// ---- messages and events ----

void Sink::tell_state() {
    const auto change = stream()->changed_state();
    const char* const name = change ? message_of(change->state) : nullptr;
    if (name == nullptr) {
        return;
    }
    post(name, gst_structure_new("f", "state", G_TYPE_STRING, name_of(change->state), "reason",
                                 G_TYPE_STRING, change->reason.c_str(), nullptr));
    if (change->state == Frame_State::refused || change->state == Frame_State::no_ring) {
        GST_ELEMENT_WARNING(element_, RESOURCE, NOT_AUTHORIZED,
                            ("Nothing is published: %s", change->reason.c_str()),
                            ("frames are counted as refused"));
    }
}

void Sink::tell_dropped(const Sink_Stream::Result& result) {
    ++dropped_;
    const auto now = Clock::now();
    if (now - dropped_told_ < told_interval) {
        return;
    }
    dropped_told_ = now;
    post("zavsink-dropped",
         gst_structure_new("f", "frames", G_TYPE_UINT64, std::exchange(dropped_, 0), "outcome",
                           G_TYPE_STRING, name_of(result.outcome), "bytes", G_TYPE_UINT64,
                           static_cast<guint64>(result.payload_bytes), "limit", G_TYPE_UINT64,
                           static_cast<guint64>(result.limit_bytes), "reason", G_TYPE_STRING,
                           result.reason.c_str(), nullptr));
}

void Sink::pass_on_key_request() {
    if (!stream()->key_frame_requested()) {
        return;
    }
    guint count = 0;
    {
        const Guard guard(mutex_);
        count = ++key_requests_;
    }
    gst_pad_push_event(GST_BASE_SINK_PAD(element_), gst_video_event_new_upstream_force_key_unit(
                                                        GST_CLOCK_TIME_NONE, TRUE, count));
}

void Sink::tell_refused_caps(GstCaps* caps) const {
    GstElement* const element = GST_ELEMENT_CAST(element_);
    if (GST_STATE(element) < GST_STATE_PAUSED || gst_caps_is_fixed(caps) == FALSE) {
        return;
    }
    const std::string reason = "the element does not take " + text_of(caps);
    post("zavsink-refused",
         gst_structure_new("f", "reason", G_TYPE_STRING, reason.c_str(), nullptr));
}

// Takes the fields, whose own name does not matter, behind those that all messages have.
void Sink::post(const char* name, GstStructure* fields) const {
    GstElement* const element = GST_ELEMENT_CAST(element_);
    gst_structure_set_name(fields, name);
    gst_structure_set(fields, "producer", G_TYPE_STRING, used_.producer.c_str(), "channel",
                      G_TYPE_INT, used_.channel, "stream", G_TYPE_INT, used_.stream, nullptr);
    gst_element_post_message(element, gst_message_new_element(GST_OBJECT_CAST(element), fields));
}

// ---- properties ----

Sink_Settings Sink::settings() const {
    const Guard guard(mutex_);
    return settings_;
}

std::shared_ptr<Sink_Stream> Sink::stream() const {
    const Guard guard(mutex_);
    return stream_;
}

bool Sink::set_property(guint id, const GValue* value) {
    const Guard guard(mutex_);
    return set_setting(settings_, id, value);
}

bool Sink::get_property(guint id, GValue* value) const {
    if (id == sink_stats) {
        g_value_take_boxed(value, statistics());
        return true;
    }
    const Guard guard(mutex_);
    return get_setting(settings_, id, value);
}

GstStructure* Sink::statistics() const {
    GstStructure* const all = gst_base_sink_get_stats(element_);
    gst_structure_set_name(all, "zavsink-stats");
    const auto of = stream();
    if (!of) {
        return all;
    }
    guint key_requests = 0;
    {
        const Guard guard(mutex_);
        key_requests = key_requests_;
    }
    const Publisher_Counters counters = of->counters();
    const auto set = [all](const char* name, std::uint64_t value) {
        gst_structure_set(all, name, G_TYPE_UINT64, static_cast<guint64>(value), nullptr);
    };
    gst_structure_set(all, "state", G_TYPE_STRING, name_of(of->state()), "reason", G_TYPE_STRING,
                      of->reason().c_str(), nullptr);
    set("epoch", of->epoch());
    set("limit", of->page_bytes());
    set("frames", counters.frames);
    set("published", counters.published);
    set("bytes", counters.bytes);
    set("too-large", counters.too_large);
    set("refused", counters.refused);
    set("left-out", of->left_out());
    set("in-place", of->in_place());
    set("completed", of->completed());
    set("key-requests", key_requests);
    set("recoveries", counters.recoveries);
    set("waits", counters.waits);
    set("given-up", counters.given_up);
    set("slot-frames", counters.slot_frames);
    set("slot-passed-over", counters.slot_passed_over);
    set("slot-slow-reads", counters.slot_slow_reads);
    return all;
}

}  // namespace zav_shm::gst
