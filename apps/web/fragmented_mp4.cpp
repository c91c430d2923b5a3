// SPDX-License-Identifier: Apache-2.0
#include "apps/web/fragmented_mp4.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <cstring>
#include <utility>

namespace zav_shm::web {

namespace {

struct Unref {
    void operator()(void* object) const { gst_object_unref(object); }
};

template <class Object>
using Owned = std::unique_ptr<Object, Unref>;

// A fragment ends with each picture, which is on the screen a moment after the next one came.
constexpr const char* description =
    "appsrc name=units is-live=true format=time block=false max-bytes=0 "
    "caps=video/x-h264,stream-format=byte-stream,alignment=au "
    "! h264parse ! mp4mux fragment-duration=1 streamable=true "
    "! appsink name=fragments sync=false max-buffers=0";

Owned<GstElement> child_of(GstElement* pipeline, const char* name) {
    return Owned<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline), name));
}

}  // namespace

struct Fragmented_Mp4::Pipeline {
    Owned<GstElement> whole;
    Owned<GstElement> units;
    Owned<GstElement> fragments;
    Owned<GstBus> bus;
};

void Fragmented_Mp4::set_up() { gst_init(nullptr, nullptr); }

Fragmented_Mp4::Fragmented_Mp4() : pipeline_(std::make_unique<Pipeline>()) {
    GError* error = nullptr;
    GstElement* const whole =
        gst_parse_launch_full(description, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (whole == nullptr) {
        failure_ = error != nullptr ? error->message : "no pipeline can be made";
        g_clear_error(&error);
        return;
    }
    pipeline_->whole.reset(GST_ELEMENT(gst_object_ref_sink(whole)));
    pipeline_->units = child_of(whole, "units");
    pipeline_->fragments = child_of(whole, "fragments");
    pipeline_->bus.reset(gst_element_get_bus(whole));
    if (gst_element_set_state(whole, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        failure_ = "the pipeline does not start";
    }
}

Fragmented_Mp4::~Fragmented_Mp4() {
    if (pipeline_->whole) {
        gst_element_set_state(pipeline_->whole.get(), GST_STATE_NULL);
    }
}

void Fragmented_Mp4::add(std::span<const std::byte> unit, std::chrono::nanoseconds pts,
                         std::chrono::nanoseconds interval, bool is_key_frame) {
    if (!failure_.empty() || unit.empty()) {  // the end of a stream has no picture
        return;
    }
    GstBuffer* const buffer = gst_buffer_new_memdup(unit.data(), unit.size());
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(pts.count());
    GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(decoding_.next(unit, pts, interval).count());
    if (!is_key_frame) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    }
    gst_app_src_push_buffer(GST_APP_SRC(pipeline_->units.get()), buffer);  // takes it
}

std::optional<std::string> Fragmented_Mp4::take(std::chrono::milliseconds limit) {
    if (has_failed()) {
        return std::nullopt;
    }
    std::string taken;
    GstClockTime wait = static_cast<GstClockTime>(limit.count()) * GST_MSECOND;
    GstAppSink* const sink = GST_APP_SINK(pipeline_->fragments.get());
    while (GstSample* const sample = gst_app_sink_try_pull_sample(sink, wait)) {
        GstMapInfo map;
        GstBuffer* const buffer = gst_sample_get_buffer(sample);
        if (gst_buffer_map(buffer, &map, GST_MAP_READ) != FALSE) {
            const std::size_t before = taken.size();
            taken.resize(before + map.size);
            std::memcpy(taken.data() + before, map.data, map.size);
            gst_buffer_unmap(buffer, &map);
        }
        gst_sample_unref(sample);
        wait = 0;
    }
    return taken;
}

bool Fragmented_Mp4::has_failed() {
    if (!failure_.empty()) {
        return true;
    }
    GstMessage* const message = gst_bus_pop_filtered(pipeline_->bus.get(), GST_MESSAGE_ERROR);
    if (message == nullptr) {
        return false;
    }
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    failure_ = error->message;
    g_clear_error(&error);
    gst_message_unref(message);
    return true;
}

}  // namespace zav_shm::web
