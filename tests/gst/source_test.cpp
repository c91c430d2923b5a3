// SPDX-License-Identifier: Apache-2.0
//
// zavsrc: what becomes of frames, of losses and restarts, and how it starts and stops.
#include "source_fixture.h"

#include <gst/video/video-event.h>

#include <algorithm>
#include <thread>

#include "support/threads.h"

using namespace std::chrono_literals;
using zav_shm::Frame_Info;
namespace codec = zav_shm::codec;
namespace frame_flag = zav_shm::frame_flag;

namespace {

constexpr const char* from_oldest =
    "zavsrc name=in producer=CAM_LOOP from=oldest ! appsink name=out sync=false";

Bytes bytes_of(unsigned number) { return {static_cast<std::byte>(number)}; }

TEST_F(Source_Element, buffers_say_what_the_frames_said) {
    publish(*camera, bytes_of(1),
            {.flags = frame_flag::key_frame, .pts = 70ns, .utc = 5s, .duration = 40ms});
    publish(*camera, bytes_of(2), {.pts = 40'000'071ns});
    Taking_Pipeline pipeline(from_oldest);
    pipeline.set_state(GST_STATE_PLAYING);
    const auto first = pipeline.next();
    const auto second = pipeline.next();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->bytes, bytes_of(1));
    EXPECT_EQ(first->caps,
              "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
              "width=(int)64, height=(int)48, framerate=(fraction)25/1");
    EXPECT_EQ(first->duration_ns, 40 * ms);
    EXPECT_EQ(first->utc_ns, 5000 * ms);
    EXPECT_EQ(first->sequence, 1U);
    EXPECT_FALSE(first->is_delta);
    EXPECT_TRUE(first->is_discontinuous);
    EXPECT_EQ(second->bytes, bytes_of(2));
    EXPECT_EQ(second->pts_ns - first->pts_ns, 40'000'001);
    EXPECT_EQ(second->duration_ns, -1);
    EXPECT_EQ(second->utc_ns, 0);
    EXPECT_TRUE(second->is_delta);
    EXPECT_FALSE(second->is_discontinuous);
    EXPECT_EQ(pipeline.figure("frames"), 2U);
}

TEST_F(Source_Element, begins_with_the_newest_key_frame) {
    for (unsigned i = 0; i < 13; ++i) {
        publish(i, i * 40 * ms);
    }
    Taking_Pipeline pipeline("zavsrc producer=CAM_LOOP ! appsink name=out sync=false");
    pipeline.set_state(GST_STATE_PLAYING);
    const auto first = pipeline.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->bytes, bytes_of(10));
    EXPECT_GE(first->running_ns, 0) << "nothing of a history is too early";
}

TEST_F(Source_Element, live_time_leaves_what_was_before_the_pipeline_before_its_segment) {
    publish(0, 1000 * ms);
    std::this_thread::sleep_for(30ms);
    Taking_Pipeline pipeline("zavsrc producer=CAM_LOOP align=live ! appsink name=out sync=false");
    pipeline.set_state(GST_STATE_PLAYING);
    const auto older = pipeline.next();
    std::this_thread::sleep_for(10ms);
    publish(1, 3000 * ms);
    const auto live = pipeline.next();
    ASSERT_TRUE(older && live);
    EXPECT_EQ(older->running_ns, -1) << "it is for the decoder only";
    EXPECT_GE(live->running_ns, 0);
    EXPECT_EQ(live->pts_ns - older->pts_ns, 2000 * ms);
}

TEST_F(Source_Element, ends_at_once_while_it_waits) {
    Taking_Pipeline pipeline(from_oldest);
    const Stopwatch watch;
    for (int i = 0; i < 20; ++i) {
        pipeline.set_state(GST_STATE_PLAYING);
        std::this_thread::sleep_for(20ms);
        pipeline.set_state(GST_STATE_READY);
    }
    EXPECT_LT(watch.elapsed(), 10s) << "each wait is for a second, unless it is ended";
}

TEST_F(Source_Element, goes_through_its_states_200_times_and_leaves_nothing) {
    for (unsigned i = 0; i < 20; ++i) {
        publish(i, i * 40 * ms);
    }
    Taking_Pipeline pipeline(from_oldest);
    for (int i = 0; i < 200; ++i) {
        ASSERT_NE(pipeline.set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        if (i % 10 == 0) {
            ASSERT_TRUE(pipeline.next()) << i;
        }
        ASSERT_EQ(pipeline.set_state(i % 2 == 0 ? GST_STATE_NULL : GST_STATE_READY),
                  GST_STATE_CHANGE_SUCCESS);
    }
}

TEST_F(Source_Element, goes_on_after_a_pause_with_what_it_has_not_taken) {
    publish(0, 0);
    Taking_Pipeline pipeline(from_oldest);
    pipeline.set_state(GST_STATE_PLAYING);
    const auto before = pipeline.next();
    pipeline.set_state(GST_STATE_PAUSED);
    std::this_thread::sleep_for(100ms);
    publish(1, 40 * ms);
    pipeline.set_state(GST_STATE_PLAYING);
    const auto after = pipeline.next();
    ASSERT_TRUE(before && after);
    EXPECT_EQ(after->bytes, bytes_of(1));
    EXPECT_EQ(after->pts_ns - before->pts_ns, 40 * ms);
}

// The sink is not asynchronous: one that is changes its state behind a flush, in a thread that
// waits for the source's state, which is locked while the source handles an event.
TEST_F(Source_Element, flush_does_not_end_it) {
    publish(0, 0);
    Taking_Pipeline pipeline(std::string(from_oldest) + " async=false");
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.next());
    const auto source = pipeline.element("in");
    for (unsigned i = 1; i < 10; ++i) {
        EXPECT_TRUE(gst_element_send_event(source.get(), gst_event_new_flush_start()));
        EXPECT_TRUE(gst_element_send_event(source.get(), gst_event_new_flush_stop(TRUE)));
        publish(i, i * 40 * ms);
        const auto after = pipeline.next();
        ASSERT_TRUE(after);
        EXPECT_EQ(after->bytes, bytes_of(i));
        EXPECT_TRUE(after->is_discontinuous);
    }
}

TEST_F(Source_Element, format_changes_with_the_frame_that_has_another_one) {
    publish(0, 0);
    camera->set_format({codec::h264, 128, 96, 25, 1, 0});
    publish(5, 40 * ms);
    camera->set_format({codec::mjpeg, 128, 96, 0, 1, 0});
    publish(10, 80 * ms);
    Taking_Pipeline pipeline(from_oldest);
    pipeline.set_state(GST_STATE_PLAYING);
    EXPECT_NE(pipeline.next().value_or(Taken{}).caps.find("width=(int)64"), std::string::npos);
    EXPECT_NE(pipeline.next().value_or(Taken{}).caps.find("width=(int)128"), std::string::npos);
    const auto third = pipeline.next().value_or(Taken{});
    EXPECT_EQ(third.caps, "image/jpeg, width=(int)128, height=(int)96");
    EXPECT_FALSE(third.is_discontinuous);
}

TEST_F(Source_Element, loss_is_a_discontinuity_and_a_message_with_cause_and_count) {
    publish(0, 0);
    camera->leave_out(3);
    publish(5, 160 * ms);
    Taking_Pipeline pipeline(from_oldest);
    pipeline.set_state(GST_STATE_PLAYING);
    pipeline.next();
    const auto behind = pipeline.next();
    ASSERT_TRUE(behind);
    EXPECT_TRUE(behind->is_discontinuous);
    EXPECT_EQ(behind->sequence, 5U);
    const auto told = pipeline.message("zavsrc-loss");
    ASSERT_TRUE(told);
    const GstStructure* const facts = gst_message_get_structure(told.get());
    EXPECT_STREQ(gst_structure_get_string(facts, "cause"), "left-out");
    guint64 count = 0;
    EXPECT_TRUE(gst_structure_get_uint64(facts, "count", &count));
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(pipeline.figure("left-out"), 3U);
}

TEST_F(Source_Element, producer_that_comes_back_goes_on_behind_what_was) {
    Taking_Pipeline pipeline(
        "zavsrc name=in producer=CAM_LOOP from=live ! appsink name=out sync=false");
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.message("zavsrc-state"));
    publish(0, 9000 * ms);
    const auto before = pipeline.next();
    restart_producer();
    publish(5, 0);
    const auto after = pipeline.next();
    ASSERT_TRUE(before && after);
    EXPECT_TRUE(after->is_discontinuous);
    EXPECT_GT(after->pts_ns, before->pts_ns);
    EXPECT_TRUE(pipeline.message("zavsrc-restart"));
}

TEST_F(Source_Element, producer_that_comes_back_is_an_error_where_that_is_wanted) {
    publish(0, 0);
    Taking_Pipeline pipeline(std::string("zavsrc producer=CAM_LOOP restart=error from=oldest ! ") +
                             "appsink name=out sync=false");
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.next());
    restart_producer();
    publish(0, 0);
    EXPECT_NE(pipeline.error().find("CAM_LOOP/0/0 was started again"), std::string::npos);
}

TEST_F(Source_Element, named_consumer_outlives_its_center) {
    Taking_Pipeline pipeline(
        "zavsrc name=RECODER tap=false producer=CAM_LOOP from=oldest ! appsink name=out "
        "sync=false");
    publish(0, 0);
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.next());
    stop();
    publish(1, 40 * ms);
    EXPECT_TRUE(pipeline.next());
    start(media_configuration);
    publish(2, 80 * ms);
    const auto third = pipeline.next();
    ASSERT_TRUE(third);
    EXPECT_EQ(third->bytes, bytes_of(2));
}

TEST_F(Source_Element, key_unit_that_is_forced_downstream_is_asked_of_the_producer) {
    publish(0, 0);
    Taking_Pipeline pipeline(from_oldest);
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.next());
    static_cast<void>(camera->key_frame_requested());
    const auto out = pipeline.element("out");
    EXPECT_TRUE(gst_element_send_event(
        out.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 1)));
    EXPECT_TRUE(becomes_true([this] { return camera->key_frame_requested(); }));
    EXPECT_TRUE(
        gst_element_send_event(out.get(), gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.5, 100, 100)))
        << "which changes nothing";
}

TEST_F(Source_Element, end_of_the_producer_is_the_end_only_where_that_is_wanted) {
    publish(0, 0);
    publish(*camera, {}, {.flags = frame_flag::end_of_stream, .pts = 40ms});
    publish(5, 80 * ms);
    Taking_Pipeline goes_on(from_oldest);
    goes_on.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(goes_on.next());
    EXPECT_EQ(goes_on.next().value_or(Taken{}).bytes, bytes_of(5));
    EXPECT_EQ(goes_on.figure("discarded"), 0U);
    Taking_Pipeline ends(
        "zavsrc producer=CAM_LOOP from=oldest end-of-stream=true ! appsink name=out sync=false");
    ends.set_state(GST_STATE_PLAYING);
    EXPECT_EQ(ends.rest().size(), 1U);
}

TEST_F(Source_Element, unknown_codec_is_named_unless_the_caps_are_given) {
    camera->set_format({zav_shm::four_characters("ZZ9"), 0, 0, 0, 1, 0});
    publish(0, 0);
    Taking_Pipeline unknown(from_oldest);
    unknown.set_state(GST_STATE_PLAYING);
    EXPECT_NE(unknown.error().find("ZZ9"), std::string::npos);
    Taking_Pipeline given(
        "zavsrc producer=CAM_LOOP from=oldest caps=audio/x-alaw,rate=8000,channels=1 ! "
        "appsink name=out sync=false");
    given.set_state(GST_STATE_PLAYING);
    const auto first = given.next();
    ASSERT_TRUE(first);
    EXPECT_NE(first->caps.find("audio/x-alaw"), std::string::npos);
}

TEST_F(Source_Element, raw_picture_of_a_wrong_length_is_discarded_and_told) {
    camera->set_format({codec::gray8, 4, 2, 0, 1, 0});
    publish(*camera, Bytes(8), {.pts = 0ns});
    publish(*camera, Bytes(7), {.pts = 40ms});
    publish(*camera, Bytes(8), {.pts = 80ms});
    Taking_Pipeline pipeline(
        "zavsrc name=in any-frame=true producer=CAM_LOOP from=oldest ! appsink name=out "
        "sync=false");
    pipeline.set_state(GST_STATE_PLAYING);
    const auto first = pipeline.next();
    const auto second = pipeline.next();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(second->sequence, 3U);
    EXPECT_TRUE(second->is_discontinuous);
    EXPECT_EQ(pipeline.figure("discarded"), 1U);
    EXPECT_TRUE(pipeline.message("zavsrc-loss"));
}

TEST_F(Source_Element, silence_of_sound_is_told_as_a_gap_and_by_a_message) {
    camera->set_format({codec::pcma, 0, 0, 8000, 1, 1});
    Taking_Pipeline pipeline(
        "zavsrc name=in producer=CAM_LOOP from=live gap=200 timeout=100 ! "
        "identity name=id silent=false ! appsink name=out sync=false");
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.message("zavsrc-state"));
    publish(*camera, Bytes(80), {.flags = frame_flag::key_frame, .pts = 0ns, .duration = 10ms});
    ASSERT_TRUE(pipeline.next());
    EXPECT_TRUE(pipeline.message("zavsrc-timeout"));
    const auto identity = pipeline.element("id");
    EXPECT_TRUE(becomes_true([&identity] {
        char* text = nullptr;
        g_object_get(identity.get(), "last-message", &text, nullptr);
        const std::string message = text != nullptr ? text : "";
        g_free(text);
        return message.find("gap") != std::string::npos;
    }));
}

TEST_F(Source_Element, is_live_and_says_how_late_frames_come) {
    publish(0, 0);
    Taking_Pipeline pipeline(
        "zavsrc name=in producer=CAM_LOOP from=oldest latency=35 ! appsink name=out sync=false");
    EXPECT_EQ(pipeline.set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.next());
    GstQuery* const query = gst_query_new_latency();
    ASSERT_TRUE(gst_element_query(pipeline.element("in").get(), query));
    gboolean is_live = FALSE;
    GstClockTime least = 0;
    gst_query_parse_latency(query, &is_live, &least, nullptr);
    gst_query_unref(query);
    EXPECT_TRUE(is_live);
    EXPECT_EQ(least, 35 * GST_MSECOND);
}

TEST_F(Source_Element, does_not_start_with_what_cannot_be) {
    for (const auto& [properties, named] :
         {std::pair{"", "producer"}, std::pair{"producer=A/../B", "A/../B"},
          std::pair{"producer=CAM_LOOP from=yesterday", "yesterday"},
          std::pair{"producer=CAM_LOOP consumer=NOBODY", "CAM_LOOP/0/0"}}) {
        Taking_Pipeline pipeline(std::string("zavsrc name=in ") + properties +
                                 " ! appsink name=out");
        EXPECT_EQ(pipeline.set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE) << properties;
        EXPECT_NE(pipeline.error().find(named), std::string::npos) << properties;
    }
}

TEST_F(Source_Element, sound_and_pictures_of_a_producer_are_in_sync_to_the_nanosecond) {
    ZAV_SHM_Frame_Publisher microphone(
        {.name = "CAM_LOOP", .stream = 1, .format = {codec::pcma, 0, 0, 8000, 1, 1}});
    ASSERT_TRUE(microphone.open());
    Taking_Pipeline pipeline(
        "zavsrc name=in producer=CAM_LOOP from=live ! appsink name=out sync=false "
        "zavsrc name=in2 producer=CAM_LOOP stream=1 from=live ! appsink name=sound sync=false");
    pipeline.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(pipeline.message("zavsrc-state"));
    ASSERT_TRUE(pipeline.message("zavsrc-state"));
    std::int64_t difference = 0;
    for (unsigned i = 0; i < 10; ++i) {
        const std::int64_t pts_ns = 77'000 * ms + i * 40 * ms;
        publish(microphone, Bytes(320),
                {.flags = frame_flag::key_frame, .pts = std::chrono::nanoseconds(pts_ns)});
        std::this_thread::sleep_for(60ms);  // which the pictures' encoder takes
        publish(i * 5, pts_ns);
        const auto picture = pipeline.next();
        const auto sound = pipeline.next("sound");
        ASSERT_TRUE(picture && sound);
        EXPECT_EQ(picture->running_ns, sound->running_ns);
        difference = std::max(difference, std::abs(picture->running_ns - sound->running_ns));
    }
    EXPECT_EQ(difference, 0);
    microphone.close();
}

}  // namespace
