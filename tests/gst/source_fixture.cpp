// SPDX-License-Identifier: Apache-2.0
#include "source_fixture.h"

#include <gst/app/gstappsink.h>

#include "support/histories.h"

using zav_shm::Frame_Info;

namespace {

constexpr GstClockTime patience = 2 * GST_SECOND;

Taken taken_of(GstSample* sample) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    Taken taken;
    taken.bytes.resize(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, taken.bytes.data(), taken.bytes.size());
    taken.pts_ns = static_cast<std::int64_t>(GST_BUFFER_PTS(buffer));
    taken.running_ns = static_cast<std::int64_t>(gst_segment_to_running_time(
        gst_sample_get_segment(sample), GST_FORMAT_TIME, GST_BUFFER_PTS(buffer)));
    taken.duration_ns = static_cast<std::int64_t>(GST_BUFFER_DURATION(buffer));
    taken.sequence = GST_BUFFER_OFFSET(buffer);
    taken.is_delta = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    taken.is_discontinuous = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    if (const auto* const meta = gst_buffer_get_reference_timestamp_meta(buffer, nullptr)) {
        taken.utc_ns = static_cast<std::int64_t>(meta->timestamp);
    }
    char* const caps = gst_caps_to_string(gst_sample_get_caps(sample));
    taken.caps = caps;
    g_free(caps);
    return taken;
}

}  // namespace

Taking_Pipeline::Taking_Pipeline(const std::string& text) {
    GError* error = nullptr;
    pipeline_.reset(
        gst_parse_launch_full(text.c_str(), nullptr, GST_PARSE_FLAG_PLACE_IN_BIN, &error));
    EXPECT_EQ(error, nullptr) << error->message;
    gst_object_ref_sink(pipeline_.get());
    if (!GST_IS_PIPELINE(pipeline_.get())) {
        GstElement* const pipeline = gst_pipeline_new(nullptr);
        gst_bin_add(GST_BIN(pipeline), pipeline_.get());
        pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(pipeline)));
    }
    bus_.reset(gst_element_get_bus(pipeline_.get()));
}

Taking_Pipeline::~Taking_Pipeline() {
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    gst_bus_set_flushing(bus_.get(), TRUE);
}

GstStateChangeReturn Taking_Pipeline::set_state(GstState state) const {
    return gst_element_set_state(pipeline_.get(), state);
}

std::optional<Taken> Taking_Pipeline::next(const char* from) const {
    const Owned<GstElement> out = element(from);
    GstSample* const sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), patience);
    if (sample == nullptr) {
        return {};
    }
    Taken taken = taken_of(sample);
    gst_sample_unref(sample);
    return taken;
}

std::vector<Taken> Taking_Pipeline::rest(const char* from) const {
    std::vector<Taken> all;
    while (auto taken = next(from)) {
        all.push_back(std::move(*taken));
    }
    return all;
}

Owned<GstMessage> Taking_Pipeline::message(const char* name) const {
    const GstClockTime end = gst_util_get_timestamp() + patience;
    while (gst_util_get_timestamp() < end) {
        Owned<GstMessage> found(gst_bus_timed_pop(bus_.get(), 50 * GST_MSECOND));
        if (found && gst_message_has_name(found.get(), name) != FALSE) {
            return found;
        }
    }
    return nullptr;
}

bool Taking_Pipeline::ends() const {
    const auto ends = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    const Owned<GstMessage> last(gst_bus_timed_pop_filtered(bus_.get(), 20 * GST_SECOND, ends));
    return last && GST_MESSAGE_TYPE(last.get()) == GST_MESSAGE_EOS;
}

std::string Taking_Pipeline::error() const {
    const Owned<GstMessage> found(
        gst_bus_timed_pop_filtered(bus_.get(), patience, GST_MESSAGE_ERROR));
    if (!found) {
        return {};
    }
    GError* error = nullptr;
    char* detail = nullptr;
    gst_message_parse_error(found.get(), &error, &detail);
    std::string text = std::string(error->message) + " " + (detail != nullptr ? detail : "");
    g_error_free(error);
    g_free(detail);
    return text;
}

Owned<GstElement> Taking_Pipeline::element(const char* name) const {
    return Owned<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
}

guint64 Taking_Pipeline::figure(const char* name) const {
    GstStructure* all = nullptr;
    g_object_get(element("in").get(), "stats", &all, nullptr);
    const Owned<GstStructure> stats(all);
    guint64 value = 0;
    EXPECT_TRUE(gst_structure_get_uint64(all, name, &value)) << name;
    return value;
}

ZAV_SHM_Frame_Publisher::Options Source_Element::camera_options() {
    return {.name = "CAM_LOOP",
            .format = {zav_shm::codec::h264, 64, 48, 25, 1, 0},
            .history_bytes = 1U << 20U};
}

// Threads of GStreamer's tasks otherwise wait for other tasks for a while.
void Source_Element::SetUpTestSuite() {
    Any_Element::SetUpTestSuite();
    g_thread_pool_set_max_unused_threads(0);
}

void Source_Element::SetUp() {
    Center::SetUp();
    start(media_configuration);
    camera = std::make_unique<ZAV_SHM_Frame_Publisher>(camera_options());
    ASSERT_TRUE(camera->open());
}

void Source_Element::TearDown() {
    camera.reset();
    gst_task_cleanup_all();
    stop();
    remove_histories();
    Center::TearDown();
}

void Source_Element::publish(unsigned number, std::int64_t pts_ns, unsigned keys) {
    publish(*camera, Bytes{static_cast<std::byte>(number)},
            {.flags = number % keys == 0 ? zav_shm::frame_flag::key_frame : std::uint16_t{0},
             .pts = std::chrono::nanoseconds(pts_ns)});
}

void Source_Element::publish(ZAV_SHM_Frame_Publisher& to, const Bytes& bytes,
                             const Frame_Info& info) const {
    const auto result = to.publish(bytes, info);
    EXPECT_TRUE(result.published()) << result.reason;
}

void Source_Element::restart_producer() {
    camera.reset();
    camera = std::make_unique<ZAV_SHM_Frame_Publisher>(camera_options());
    ASSERT_TRUE(camera->open());
}
