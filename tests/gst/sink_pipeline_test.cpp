// SPDX-License-Identifier: Apache-2.0
//
// zavsink at the end of real pipelines, and the room in its history that it lends.
#include <gst/app/gstappsink.h>

#include <algorithm>
#include <regex>

#include "gst/sink_stream.h"
#include "sink_fixture.h"
#include "support/child_process.h"
#include "support/threads.h"

using namespace std::chrono_literals;
using zav_shm::Publish_Outcome;
using zav_shm::Received_Frame;
using zav_shm::gst::Lending;
using zav_shm::gst::Sink_Stream;
namespace frame_flag = zav_shm::frame_flag;

namespace {

struct Picture {
    Bytes bytes;
    std::int64_t pts_ns = 0;

    bool operator==(const Picture&) const = default;
};

class Sink_Pipeline : public Sink_Element {
protected:
    /// All frames of the history but the one that says that it ends.
    std::vector<Picture> published() {
        std::vector<Picture> all;
        static_cast<void>(tap.open());
        Received_Frame frame;
        while (tap.receive(frame, 0ms) == zav_shm::Receive_Status::frame) {
            if ((frame.header.flags & frame_flag::end_of_stream) == 0) {
                flags.push_back(frame.header.flags);
                all.push_back(
                    {Bytes(frame.payload().begin(), frame.payload().end()), frame.header.pts_ns});
            }
        }
        return all;
    }

    std::vector<unsigned> flags;  // of the frames that published() has found
};

// ---- pictures and sound ----

struct Codec_Case {
    const char* name;
    const char* encoder;
};

class Encoded : public Sink_Pipeline, public testing::WithParamInterface<Codec_Case> {};

// What another sink of the same pipeline gets, with running times.
GstFlowReturn keep_sample(GstAppSink* from, gpointer kept) {
    GstSample* const sample = gst_app_sink_pull_sample(from);
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    Picture picture;
    picture.bytes.resize(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, picture.bytes.data(), picture.bytes.size());
    picture.pts_ns = static_cast<std::int64_t>(gst_segment_to_running_time(
        gst_sample_get_segment(sample), GST_FORMAT_TIME, GST_BUFFER_PTS(buffer)));
    static_cast<std::vector<Picture>*>(kept)->push_back(std::move(picture));
    gst_sample_unref(sample);
    return GST_FLOW_OK;
}

TEST_P(Encoded, access_units_come_out_as_they_went_in) {
    std::vector<Picture> sent;
    prepare = [&sent](GstElement* pipeline) {
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = keep_sample;
        const Owned<GstElement> other(gst_bin_get_by_name(GST_BIN(pipeline), "other"));
        gst_app_sink_set_callbacks(GST_APP_SINK(other.get()), &callbacks, &sent, nullptr);
    };
    EXPECT_EQ(run(std::string("videotestsrc num-buffers=50 pattern=ball ! "
                              "video/x-raw,width=160,height=120,framerate=25/1 ! ") +
                  GetParam().encoder +
                  " ! tee name=t ! queue ! appsink name=other sync=false t. ! queue ! "
                  "$SINK history=4000000"),
              "");
    const auto got = published();
    EXPECT_EQ(got.size(), 50U);
    EXPECT_TRUE(got == sent);
    for (std::size_t i = 0; i < flags.size(); ++i) {
        const bool is_key = (flags[i] & frame_flag::key_frame) != 0;
        EXPECT_EQ(is_key, i % 10 == 0) << i;
        EXPECT_EQ((flags[i] & frame_flag::codec_configuration) != 0, is_key) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sink, Encoded,
    testing::Values(Codec_Case{"h264",
                               "x264enc tune=zerolatency key-int-max=10 option-string=scenecut=0 ! "
                               "h264parse config-interval=-1"},
                    Codec_Case{"h265",
                               "x265enc tune=zerolatency key-int-max=10 "
                               "option-string=scenecut=0:open-gop=0:log-level=none ! "
                               "h265parse config-interval=-1"}),
    [](const auto& given) { return given.param.name; });

TEST_F(Sink_Pipeline, encoder_makes_the_key_frame_that_a_reader_asks_for) {
    const Owned<GstElement> whole(gst_parse_launch(
        "videotestsrc is-live=true ! video/x-raw,width=160,height=120,framerate=50/1 ! "
        "x264enc tune=zerolatency key-int-max=100000 option-string=scenecut=0 ! "
        "h264parse config-interval=-1 ! zavsink name=CAM_LOOP center-wait=0",
        nullptr));
    sink.reset(gst_bin_get_by_name(GST_BIN(whole.get()), "CAM_LOOP"));
    gst_element_set_state(whole.get(), GST_STATE_PLAYING);
    static_cast<void>(tap.open());
    std::vector<int> keys;
    for (int i = 0; i < 100 && keys.size() < 2; ++i) {
        const auto frame = next();
        ASSERT_TRUE(frame) << i;
        if (frame->is_key_frame()) {
            keys.push_back(i);
        }
        if (i == 10) {
            EXPECT_TRUE(tap.request_key_frame());
        }
    }
    gst_element_set_state(whole.get(), GST_STATE_NULL);
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys[0], 0);
    EXPECT_GT(keys[1], 10);
    EXPECT_EQ(figure("key-requests"), 1U);
}

struct Sound_Case {
    const char* name;
    const char* encoder;
    std::uint32_t codec;
    std::uint32_t rate;
    bool is_configured;  // each frame by itself
};

class Sound : public Sink_Pipeline, public testing::WithParamInterface<Sound_Case> {};

TEST_P(Sound, frames_say_what_they_are_and_stand_alone) {
    EXPECT_EQ(run(std::string("audiotestsrc num-buffers=40 ! audioconvert ! audioresample ! ") +
                  GetParam().encoder + " ! $SINK history=4000000"),
              "");
    static_cast<void>(tap.open());
    const auto first = next();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->header.codec, GetParam().codec);
    EXPECT_EQ(first->header.rate_num, GetParam().rate);
    EXPECT_GE(first->header.channels, 1U);
    const auto rest = published();
    EXPECT_GT(rest.size(), 20U);
    flags.push_back(first->header.flags);
    for (const unsigned flag : flags) {
        EXPECT_NE(flag & frame_flag::key_frame, 0U);
        EXPECT_EQ((flag & frame_flag::codec_configuration) != 0, GetParam().is_configured);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sink, Sound,
    testing::Values(Sound_Case{"aac", "avenc_aac ! aacparse ! audio/mpeg,stream-format=adts",
                               zav_shm::codec::aac, 44100, true},
                    Sound_Case{"opus", "opusenc ! opusparse", zav_shm::codec::opus, 48000, false},
                    Sound_Case{"a_law", "alawenc ! audio/x-alaw,rate=8000,channels=1",
                               zav_shm::codec::pcma, 8000, false},
                    Sound_Case{"mu_law", "mulawenc ! audio/x-mulaw,rate=8000,channels=1",
                               zav_shm::codec::pcmu, 8000, false}),
    [](const auto& given) { return given.param.name; });

// ---- lent room ----

struct Raw_Case {
    const char* name;
    const char* elements;
    std::optional<guint64> in_place;  // unset: as it happens
};

class Raw : public Sink_Pipeline, public testing::WithParamInterface<Raw_Case> {};

constexpr const char* raw_source =
    "videotestsrc num-buffers=60 pattern=ball ! "
    "video/x-raw,format=I420,width=320,height=240,framerate=25/1 ! ";

TEST_P(Raw, pictures_are_the_same_in_place_and_copied) {
    const std::string here =
        std::string(raw_source) + GetParam().elements + "$SINK history=18000000 lend=";
    EXPECT_EQ(run(here + "false"), "");
    EXPECT_EQ(figure("in-place"), 0U);
    const auto copied = published();
    EXPECT_EQ(run(here + "true"), "");
    EXPECT_EQ(figure("in-place"), GetParam().in_place.value_or(figure("in-place")));
    EXPECT_EQ(figure("left-out"), 0U);
    const auto lent = published();
    EXPECT_GE(copied.size(), 59U);
    EXPECT_TRUE(copied == lent);
}

INSTANTIATE_TEST_SUITE_P(
    Sink, Raw,
    testing::Values(Raw_Case{"of_a_source", "", 60 - Lending::trial_buffers},
                    Raw_Case{"of_a_conversion", "videoconvert ! video/x-raw,format=NV12 ! ",
                             60 - Lending::trial_buffers},
                    Raw_Case{"behind_a_queue", "queue ! ", std::nullopt},
                    Raw_Case{"shown_twice", "videorate ! video/x-raw,framerate=50/1 ! ", 0},
                    Raw_Case{
                        "of_a_decoder",
                        "x264enc bframes=2 key-int-max=20 threads=1 ! avdec_h264 max-threads=1 ! ",
                        false}),
    [](const auto& given) { return given.param.name; });

TEST_F(Sink_Pipeline, nothing_is_lent_where_others_hold_the_pictures) {
    EXPECT_EQ(run(std::string(raw_source) +
                  "tee name=t ! queue ! fakesink sync=false t. ! queue ! $SINK history=9000000"),
              "");
    EXPECT_EQ(figure("in-place"), 0U);
    EXPECT_EQ(figure("published"), 61U) << "and the one that says that it ends";
}

TEST_F(Sink_Pipeline, survives_two_hundred_rounds_of_states) {
    const Owned<GstElement> whole(
        gst_parse_launch("videotestsrc ! video/x-raw,format=I420,width=320,height=240 ! "
                         "zavsink name=CAM_LOOP center-wait=0",
                         nullptr));
    sink.reset(gst_bin_get_by_name(GST_BIN(whole.get()), "CAM_LOOP"));
    for (int i = 0; i < 200; ++i) {
        gst_element_set_state(whole.get(), GST_STATE_PLAYING);
        if (i % 10 == 0) {  // until room is lent; else as it happens
            EXPECT_TRUE(becomes_true([this] { return figure("in-place") > 2; })) << i;
        }
        gst_element_set_state(whole.get(), i % 3 == 0 ? GST_STATE_READY : GST_STATE_PAUSED);
        ASSERT_EQ(gst_element_set_state(whole.get(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    }
}

// By the tracer of GStreamer, in a process of its own.
TEST_F(Sink_Pipeline, leaves_no_object_behind) {
    if (std::string(ZAV_TEST_SANITIZE).empty()) {
        for (const char* const pipeline :
             {"videotestsrc num-buffers=40 ! video/x-raw,format=I420,width=320,height=240 ! ",
              "videotestsrc num-buffers=20 ! x264enc ! h264parse ! "}) {
            Child_Process launch(
                {"/bin/sh", "-c",
                 std::string("GST_TRACERS=leaks GST_DEBUG=GST_TRACER:7 exec gst-launch-1.0 ") +
                     pipeline + "zavsink name=CAM_LOOP 2>&1"});
            const std::string output = launch.read_rest();
            EXPECT_EQ(launch.wait(), 0) << output;
            // Its own lines, at the begin, have a %s there.
            EXPECT_NE(output.find("object-alive"), std::string::npos) << "no tracer";
            EXPECT_FALSE(std::regex_search(output, std::regex("object-alive, type-name=[^,%]*,")))
                << output;
        }
    }
}

class Lent_Room : public Sink_Element {
protected:
    void SetUp() override {
        Sink_Element::SetUp();
        stream = std::make_shared<Sink_Stream>(
            Sink_Stream::Options{.name = "CAM_LOOP", .center_wait = 0ms, .frame_bytes_max = 1000});
        static_cast<void>(stream->open());
        static_cast<void>(tap.open());
        for (std::uint32_t i = 0; i < Lending::trial_buffers; ++i) {
            stream->acquire_buffer();
            stream->write(Bytes(10), pooled);
            stream->release_buffer();
            next();
        }
    }
    void TearDown() override {
        stream->close();
        stream.reset();
        Sink_Element::TearDown();
    }

    static constexpr Sink_Stream::Frame pooled{.info = {}, .is_of_pool = true, .is_alone = true};
    std::shared_ptr<Sink_Stream> stream;
};

TEST_F(Lent_Room, is_what_the_readers_see) {
    auto loan = stream->lend(100);
    ASSERT_TRUE(loan);
    EXPECT_FALSE(stream->lend(100)) << "one at a time";
    stream->acquire_buffer();
    std::fill(loan->room().begin(), loan->room().end(), std::byte{7});
    EXPECT_TRUE(stream->commit(*loan, 100, pooled).published());
    const auto frame = next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(Bytes(frame->payload().begin(), frame->payload().end()), Bytes(100, std::byte{7}));
    EXPECT_EQ(stream->in_place(), 1U);
}

TEST_F(Lent_Room, is_not_overwritten_by_a_frame_from_elsewhere) {
    auto loan = stream->lend(100);
    ASSERT_TRUE(loan);
    stream->acquire_buffer();
    std::fill(loan->room().begin(), loan->room().end(), std::byte{7});
    const auto other = stream->write(Bytes(100, std::byte{9}), {});
    EXPECT_EQ(other.reason, "the room for it is lent to an element upstream");
    EXPECT_TRUE(stream->commit(*loan, 100, pooled).published());
    const auto frame = next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload().front(), std::byte{7});
    EXPECT_EQ(frame->before.left_out, 1U);
    EXPECT_FALSE(stream->lend(100)) << "the source does not hand out one buffer after the other";
}

TEST_F(Lent_Room, is_published_once) {
    auto loan = stream->lend(100);
    ASSERT_TRUE(loan);
    stream->acquire_buffer();
    EXPECT_TRUE(stream->commit(*loan, 100, pooled).published());
    EXPECT_FALSE(stream->commit(*loan, 100, pooled).published());
    EXPECT_EQ(stream->left_out(), 1U);
}

TEST_F(Lent_Room, that_comes_back_unused_is_lent_again) {
    ASSERT_TRUE(stream->lend(100));
    EXPECT_TRUE(stream->lend(100));
    EXPECT_TRUE(stream->write(Bytes(10), {}).published());
}

TEST_F(Lent_Room, stays_mapped_until_it_comes_back) {
    auto loan = stream->lend(100);
    ASSERT_TRUE(loan);
    stream->close();
    std::fill(loan->room().begin(), loan->room().end(), std::byte{7});
    EXPECT_NE(stream->state(), zav_shm::Frame_State::closed);
    loan.reset();
    EXPECT_EQ(stream->state(), zav_shm::Frame_State::closed);
    EXPECT_FALSE(stream->lend(100));
}

}  // namespace
