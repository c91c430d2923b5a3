// SPDX-License-Identifier: Apache-2.0
#include "sink_fixture.h"

#include <algorithm>
#include <cstdlib>

#include "support/histories.h"

using namespace std::chrono_literals;

namespace {

Bytes nal_unit(std::initializer_list<unsigned> head, std::size_t filling = 0) {
    Bytes bytes{std::byte{0}, std::byte{0}, std::byte{0}, std::byte{1}};
    for (const unsigned value : head) {
        bytes.push_back(static_cast<std::byte>(value));
    }
    bytes.resize(bytes.size() + filling, std::byte{0x55});
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// @return the message of its error, or an empty text.
std::string run_to_end(GstElement* pipeline) {
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    const Owned<GstBus> bus(gst_element_get_bus(pipeline));
    const auto ends = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    const Owned<GstMessage> last(gst_bus_timed_pop_filtered(bus.get(), 20 * GST_SECOND, ends));
    std::string text = last ? "" : "no end within 20 s";
    if (last && GST_MESSAGE_TYPE(last.get()) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(last.get(), &error, nullptr);
        text = error->message;
        g_error_free(error);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    return text;
}

}  // namespace

Bytes key_unit_without_sets(std::size_t filling) { return nal_unit({0x65, 0x88}, filling); }

Bytes key_unit(std::size_t filling) {
    return nal_unit({0x67, 0x42, 0xC0, 0x0A, 0xDA}) + nal_unit({0x68, 0xCE, 0x38, 0x80}) +
           key_unit_without_sets(filling);
}

Bytes delta_unit(std::size_t filling) { return nal_unit({0x41, 0x9A}, filling); }

void Sink_Element::SetUpTestSuite() {
    setenv("GST_PLUGIN_PATH", ZAV_TEST_PLUGIN_FOLDER, 1);
    setenv("GST_REGISTRY", ZAV_TEST_REGISTRY, 1);
    setenv("GST_REGISTRY_FORK", "no", 1);
    gst_init(nullptr, nullptr);
    g_thread_pool_set_max_unused_threads(0);  // they would be left for a while
    // Threads and descriptors that stay once a pipeline has run.
    const Owned<GstElement> first(gst_parse_launch("fakesrc num-buffers=1 ! fakesink", nullptr));
    ASSERT_EQ(run_to_end(first.get()), "");
    gst_task_cleanup_all();
}

void Sink_Element::TearDown() {
    tap.close();
    harness.reset();
    if (sink) {
        gst_element_set_state(sink.get(), GST_STATE_NULL);
        gst_element_set_bus(sink.get(), nullptr);  // whose messages hold the element
    }
    sink.reset();
    bus.reset();
    remove_histories();
    gst_task_cleanup_all();
    Center::TearDown();
}

Owned<GstElement> Sink_Element::element(const std::string& properties) {
    GError* error = nullptr;
    const std::string text = "zavsink name=CAM_LOOP " + properties;
    Owned<GstElement> made(gst_parse_launch(text.c_str(), &error));
    EXPECT_EQ(error, nullptr) << error->message;
    if (made) {
        gst_object_ref_sink(made.get());
    }
    return made;
}

void Sink_Element::begin(const std::string& properties, const char* caps) {
    sink = element(properties);
    ASSERT_NE(sink, nullptr);
    bus.reset(gst_bus_new());
    gst_element_set_bus(sink.get(), bus.get());
    harness.reset(gst_harness_new_with_element(sink.get(), "sink", nullptr));
    if (caps != nullptr) {
        gst_harness_set_src_caps_str(harness.get(), caps);
    }
    ASSERT_TRUE(tap.open() || tap.state() != zav_shm::Frame_State::closed);
}

GstFlowReturn Sink_Element::push(const Bytes& bytes, const Sent& sent) const {
    GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
    gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
    GST_BUFFER_PTS(buffer) = sent.pts;
    GST_BUFFER_DURATION(buffer) = sent.duration;
    GST_BUFFER_FLAG_SET(buffer, sent.flags);
    if (GST_CLOCK_TIME_IS_VALID(sent.utc)) {
        GstCaps* const unix_time = gst_caps_new_empty_simple("timestamp/x-unix");
        gst_buffer_add_reference_timestamp_meta(buffer, unix_time, sent.utc, GST_CLOCK_TIME_NONE);
        gst_caps_unref(unix_time);
    }
    return gst_harness_push(harness.get(), buffer);
}

std::optional<zav_shm::Received_Frame> Sink_Element::next() {
    zav_shm::Received_Frame frame;
    if (tap.receive(frame, 1s) != zav_shm::Receive_Status::frame) {
        return std::nullopt;
    }
    return frame;
}

Owned<GstMessage> Sink_Element::message(const char* name) const {
    const auto end = std::chrono::steady_clock::now() + 1s;
    while (std::chrono::steady_clock::now() < end) {
        Owned<GstMessage> found(gst_bus_timed_pop(bus.get(), 50 * GST_MSECOND));
        if (found && gst_message_has_name(found.get(), name) != FALSE) {
            return found;
        }
    }
    return nullptr;
}

Owned<GstStructure> Sink_Element::stats() const {
    GstStructure* all = nullptr;
    g_object_get(sink.get(), "stats", &all, nullptr);
    return Owned<GstStructure>(all);
}

guint64 Sink_Element::figure(const char* name) const {
    guint64 value = 0;
    EXPECT_TRUE(gst_structure_get_uint64(stats().get(), name, &value)) << name;
    return value;
}

std::string Sink_Element::run(std::string pipeline) {
    const auto place = pipeline.find("$SINK");
    pipeline.replace(place, 5, "zavsink name=CAM_LOOP");
    GError* error = nullptr;
    const Owned<GstElement> whole(gst_parse_launch(pipeline.c_str(), &error));
    if (error != nullptr) {
        std::string text = error->message;
        g_error_free(error);
        return text;
    }
    sink.reset(gst_bin_get_by_name(GST_BIN(whole.get()), "CAM_LOOP"));
    prepare(whole.get());
    return run_to_end(whole.get());
}
