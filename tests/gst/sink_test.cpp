// SPDX-License-Identifier: Apache-2.0
//
// zavsink, fed by hand.
#include <gst/video/video.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "ipc/monotonic_clock.h"
#include "sink_fixture.h"
#include "support/child_process.h"
#include "support/threads.h"

using namespace std::chrono_literals;
using zav_shm::Received_Frame;
namespace frame_flag = zav_shm::frame_flag;

namespace {

Bytes payload_of(const std::optional<Received_Frame>& frame) {
    return frame ? Bytes(frame->payload().begin(), frame->payload().end()) : Bytes{};
}

const char* text_in(const Owned<GstMessage>& message, const char* field) {
    return message ? gst_structure_get_string(gst_message_get_structure(message.get()), field)
                   : nullptr;
}

GstBuffer* buffer_of(std::size_t bytes) { return gst_buffer_new_allocate(nullptr, bytes, nullptr); }

TEST_F(Sink_Element, publishes_bytes_times_format_and_flags) {
    begin();
    EXPECT_EQ(push(key_unit(), {.pts = 40 * GST_MSECOND,
                                .duration = 40 * GST_MSECOND,
                                .flags = GST_BUFFER_FLAG_DISCONT,
                                .utc = 1'700'000'000'123'456'789}),
              GST_FLOW_OK);
    push(delta_unit(), {.pts = 80'000'001, .flags = GST_BUFFER_FLAG_DELTA_UNIT});
    const auto key = next();
    ASSERT_TRUE(key);
    EXPECT_EQ(payload_of(key), key_unit());
    EXPECT_EQ(key->header.codec, zav_shm::codec::h264);
    EXPECT_EQ(key->header.width, 64U);
    EXPECT_EQ(key->header.height, 48U);
    EXPECT_EQ(key->header.rate_num, 25U);
    EXPECT_EQ(key->header.pts_ns, 40'000'000);
    EXPECT_EQ(key->header.duration_us, 40'000U);
    EXPECT_EQ(key->header.utc_ns, 1'700'000'000'123'456'789);
    EXPECT_EQ(key->header.flags, frame_flag::key_frame | frame_flag::codec_configuration);
    const auto delta = next();
    ASSERT_TRUE(delta);
    EXPECT_EQ(payload_of(delta), delta_unit());
    EXPECT_EQ(delta->header.pts_ns, 80'000'001);
    EXPECT_EQ(delta->header.utc_ns, 0);
    EXPECT_EQ(delta->header.flags, 0U);
}

TEST_F(Sink_Element, gives_key_frames_the_parameter_sets_that_went_before) {
    begin();
    push(key_unit());
    push(key_unit_without_sets());
    next();
    const auto second = next();
    ASSERT_TRUE(second);
    EXPECT_EQ(payload_of(second), key_unit());
    EXPECT_EQ(second->header.flags, frame_flag::key_frame | frame_flag::codec_configuration);
    EXPECT_EQ(figure("completed"), 1U);
}

TEST_F(Sink_Element, takes_the_time_of_now_where_there_is_no_pts) {
    begin();
    gst_harness_set_time(harness.get(), 3 * GST_SECOND);
    push(key_unit());
    const auto frame = next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->header.pts_ns, 3'000'000'000);
}

TEST_F(Sink_Element, takes_running_time_where_the_segment_begins_elsewhere) {
    begin();
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = segment.position = 3'600'000 * GST_SECOND;
    gst_harness_push_event(harness.get(), gst_event_new_segment(&segment));
    push(key_unit(), {.pts = 3'600'000 * GST_SECOND + 7});
    const auto frame = next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->header.pts_ns, 7);
}

TEST_F(Sink_Element, takes_the_wall_clock_when_told_to) {
    begin("utc-from-clock=true");
    const gint64 before = g_get_real_time();
    gst_harness_set_time(harness.get(), 2 * GST_SECOND);
    push(key_unit(), {.pts = 1 * GST_SECOND});
    const gint64 after = g_get_real_time();
    const auto frame = next();
    ASSERT_TRUE(frame);
    EXPECT_GE(frame->header.utc_ns, before * 1000 - 1'000'000'000);
    EXPECT_LE(frame->header.utc_ns, after * 1000 - 1'000'000'000);
}

TEST_F(Sink_Element, drops_and_counts_frames_that_are_too_long) {
    begin("unit-limit=200");
    push(key_unit());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(push(delta_unit(500), {.flags = GST_BUFFER_FLAG_DELTA_UNIT}), GST_FLOW_OK);
    }
    push(key_unit());
    next();
    const auto after = next();
    ASSERT_TRUE(after);
    EXPECT_EQ(after->before.left_out, 3U);
    EXPECT_TRUE(after->header.flags & frame_flag::discontinuity);
    EXPECT_EQ(figure("too-large"), 3U);
    EXPECT_EQ(figure("published"), 2U);
    const auto told = message("zavsink-dropped");
    EXPECT_STREQ(text_in(told, "outcome"), zav_shm::name_of(zav_shm::Publish_Outcome::too_large));
    EXPECT_STREQ(text_in(told, "reason"), "payload of 506 bytes, page size of CAM_LOOP/0/0 is 200");
}

TEST_F(Sink_Element, passes_over_buffers_without_bytes) {
    begin();
    EXPECT_EQ(push({}), GST_FLOW_OK);
    push(key_unit());
    const auto frame = next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->header.sequence, 1U);
}

TEST_F(Sink_Element, marks_the_frame_behind_a_discontinuity_or_a_flush) {
    begin();
    push(key_unit());
    push(key_unit(), {.flags = GST_BUFFER_FLAG_DISCONT});
    gst_harness_push_event(harness.get(), gst_event_new_flush_start());
    EXPECT_EQ(push(key_unit()), GST_FLOW_FLUSHING);
    gst_harness_push_event(harness.get(), gst_event_new_flush_stop(TRUE));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_harness_push_event(harness.get(), gst_event_new_segment(&segment));
    push(key_unit());
    push(key_unit());
    std::vector<bool> marked;
    for (int i = 0; i < 4; ++i) {
        const auto frame = next();
        ASSERT_TRUE(frame);
        marked.push_back((frame->header.flags & frame_flag::discontinuity) != 0);
    }
    EXPECT_EQ(marked, (std::vector<bool>{false, true, true, false}));
}

TEST_F(Sink_Element, says_at_the_end_that_no_frame_follows) {
    begin();
    push(key_unit(), {.pts = 1 * GST_SECOND, .duration = 40 * GST_MSECOND});
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    next();
    const auto last = next();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->header.flags, frame_flag::end_of_stream);
    EXPECT_EQ(last->length, 0U);
    EXPECT_EQ(last->header.pts_ns, 1'040'000'000);
    EXPECT_TRUE(message("zavsink-center-lost"));
}

TEST_F(Sink_Element, follows_another_format) {
    begin();
    push(key_unit());
    gst_harness_set_src_caps_str(
        harness.get(),
        "video/x-h264, stream-format=byte-stream, alignment=au, width=128, height=96");
    push(key_unit());
    gst_harness_set_src_caps_str(harness.get(), "image/jpeg, width=32, height=16");
    push(Bytes(50, std::byte{0xD8}), {.flags = GST_BUFFER_FLAG_DELTA_UNIT});
    next();
    const auto larger = next();
    ASSERT_TRUE(larger);
    EXPECT_EQ(larger->header.width, 128U);
    const auto picture = next();
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->header.codec, zav_shm::codec::mjpeg);
    EXPECT_EQ(picture->header.width, 32U);
    EXPECT_EQ(picture->header.flags, frame_flag::key_frame) << "every picture is one";
}

TEST_F(Sink_Element, refuses_caps_that_it_does_not_know_with_a_message) {
    begin();
    gst_harness_set_src_caps_str(harness.get(), "video/x-theora");
    EXPECT_EQ(push(key_unit()), GST_FLOW_NOT_NEGOTIATED);
    EXPECT_STREQ(text_in(message("zavsink-refused"), "reason"),
                 "the element does not take video/x-theora");
}

TEST_F(Sink_Element, refuses_pictures_of_which_none_would_fit) {
    begin("unit-limit=1000", nullptr);
    gst_harness_set_src_caps_str(harness.get(),
                                 "video/x-raw, format=I420, width=64, height=48, framerate=25/1");
    gst_harness_push(harness.get(), buffer_of(4608));
    EXPECT_STREQ(text_in(message("zavsink-refused"), "reason"),
                 "pictures of 4608 bytes, the limit of CAM_LOOP/0/0 is 1000: raise "
                 "\"unit-limit\", or page_size in the center's configuration");
    EXPECT_EQ(figure("frames"), 0U);
}

TEST_F(Sink_Element, asks_upstream_for_a_key_frame_when_a_reader_does) {
    begin();
    push(key_unit());
    push(delta_unit(), {.flags = GST_BUFFER_FLAG_DELTA_UNIT});
    ASSERT_TRUE(next());
    ASSERT_TRUE(tap.request_key_frame());
    push(delta_unit(), {.flags = GST_BUFFER_FLAG_DELTA_UNIT});
    bool asked = false;
    while (GstEvent* const event = gst_harness_try_pull_upstream_event(harness.get())) {
        asked |= gst_video_event_is_force_key_unit(event) != FALSE;
        gst_event_unref(event);
    }
    EXPECT_TRUE(asked);
    EXPECT_EQ(figure("key-requests"), 1U);
    push(delta_unit(), {.flags = GST_BUFFER_FLAG_DELTA_UNIT});
    EXPECT_EQ(figure("key-requests"), 1U);
}

TEST_F(Sink_Element, without_a_name_is_refused) {
    GstElement* const unnamed = gst_element_factory_make("zavsink", nullptr);
    gst_object_ref_sink(unnamed);
    EXPECT_EQ(gst_element_set_state(unnamed, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    g_object_set(unnamed, "producer", "CAM_LOOP", nullptr);
    EXPECT_EQ(gst_element_set_state(unnamed, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    gst_element_set_state(unnamed, GST_STATE_NULL);
    gst_object_unref(unnamed);
}

TEST_F(Sink_Element, starts_without_a_center_in_a_moment) {
    const std::int64_t before = zav_shm::monotonic_ns();
    begin();
    EXPECT_LT(zav_shm::monotonic_ns() - before, 2'000'000'000);
    EXPECT_STREQ(text_in(message("zavsink-center-lost"), "producer"), "CAM_LOOP");
    EXPECT_EQ(push(key_unit()), GST_FLOW_OK);
    EXPECT_TRUE(next());
}

// The host of a center, as installed: its page says whether it lives.
class Sink_Beside_Daemon : public Sink_Element {
protected:
    void SetUp() override {
        Sink_Element::SetUp();
        char name[] = "/tmp/gst_sink_test_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
        std::ofstream(folder_ + "/zav_shm.json") << small_configuration;
        start_daemon();
        announce_leftovers_of(*parsed(small_configuration));
    }
    void TearDown() override {
        daemon->signal(SIGTERM);
        EXPECT_EQ(daemon->wait(10s), 0);
        daemon.reset();
        std::filesystem::remove_all(folder_);
        Sink_Element::TearDown();
    }

    void start_daemon() {
        daemon.reset();
        daemon.emplace(
            std::vector<std::string>{ZAV_TEST_CENTERD, "--config", folder_ + "/zav_shm.json"});
        while (const auto line = daemon->read_line()) {
            if (line->starts_with("zav-shm-centerd ")) {
                return;
            }
        }
        FAIL() << "no daemon";
    }

    /// Publishes until the element posts this message.
    bool says_while_publishing(const char* name) {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (std::chrono::steady_clock::now() < end) {
            EXPECT_EQ(push(key_unit()), GST_FLOW_OK);
            const Owned<GstMessage> told(gst_bus_timed_pop(bus.get(), 20 * GST_MSECOND));
            if (told && gst_message_has_name(told.get(), name) != FALSE) {
                return true;
            }
        }
        return false;
    }

    std::optional<Child_Process> daemon;

private:
    std::string folder_;
};

TEST_F(Sink_Beside_Daemon, tells_of_the_center_as_it_goes_and_comes_and_loses_no_frame) {
    begin();
    ASSERT_TRUE(message("zavsink-center-found"));
    daemon->kill();
    EXPECT_TRUE(says_while_publishing("zavsink-center-lost"));
    start_daemon();
    EXPECT_TRUE(says_while_publishing("zavsink-center-found"));
    EXPECT_EQ(figure("frames"), figure("published"));
    EXPECT_TRUE(becomes_true([this] { return figure("recoveries") == 1; }));
}

TEST_F(Sink_Element, tells_that_the_center_refuses_it_and_goes_on) {
    start();
    begin("producer=NOBODY");
    const auto refused = message("zavsink-refused");
    ASSERT_TRUE(refused);
    EXPECT_STREQ(text_in(refused, "producer"), "NOBODY");
    EXPECT_STREQ(text_in(refused, "state"), "refused");
    EXPECT_EQ(push(key_unit()), GST_FLOW_OK);
    EXPECT_EQ(figure("refused"), 1U);
}

TEST_F(Sink_Element, tells_which_process_publishes_the_stream_already) {
    ZAV_SHM_Frame_Publisher other({.name = "CAM_LOOP", .center_wait = 20ms});
    static_cast<void>(other.open());
    begin();
    EXPECT_NE(std::string(text_in(message("zavsink-refused"), "reason")).find("publishes CAM_LOOP"),
              std::string::npos);
    EXPECT_EQ(push(key_unit()), GST_FLOW_OK);
}

TEST_F(Sink_Element, publishes_as_another_epoch_when_started_again) {
    begin();
    push(key_unit());
    const auto first = next();
    gst_element_set_state(sink.get(), GST_STATE_NULL);
    EXPECT_EQ(figure("published"), 1U) << "the figures stay";
    gst_element_set_state(sink.get(), GST_STATE_PLAYING);
    push(key_unit());
    const auto second = next();
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->header.epoch, second->header.epoch);
    EXPECT_EQ(figure("published"), 1U);
}

}  // namespace
