// SPDX-License-Identifier: Apache-2.0
#include "gst/format_caps.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>

namespace {

using zav_shm::Frame_Format;
namespace codec = zav_shm::codec;
namespace gst = zav_shm::gst;

struct Unref {
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
using Caps = std::unique_ptr<GstCaps, Unref>;

Caps caps(const char* text) { return Caps(gst_caps_from_string(text)); }

class Format_Caps : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

struct Pair {
    const char* caps;
    Frame_Format format;

    friend void PrintTo(const Pair& pair, std::ostream* stream) { *stream << pair.caps; }
};

class Format_Caps_Pair : public Format_Caps, public testing::WithParamInterface<Pair> {};

TEST_P(Format_Caps_Pair, format_becomes_these_caps_and_they_become_it_again) {
    const auto& [text, format] = GetParam();
    std::string why_not;
    const Caps made(gst::caps_of(format, why_not));
    ASSERT_TRUE(made) << why_not;
    EXPECT_TRUE(gst_caps_is_equal(made.get(), caps(text).get())) << gst_caps_to_string(made.get());
    EXPECT_TRUE(gst_caps_is_subset(made.get(), Caps(gst::all_caps()).get()));
    const auto again = gst::format_of(made.get(), why_not);
    ASSERT_TRUE(again) << why_not;
    EXPECT_EQ(again->codec, format.codec);
    EXPECT_EQ(again->width, format.width);
    EXPECT_EQ(again->height, format.height);
    EXPECT_EQ(again->rate_num, format.rate_num);
    EXPECT_EQ(again->rate_den, format.rate_den);
    EXPECT_EQ(again->channels, format.channels);
}

INSTANTIATE_TEST_SUITE_P(
    Every_Kind, Format_Caps_Pair,
    testing::Values(
        Pair{"video/x-h264, stream-format=byte-stream, alignment=au, width=640, height=360, "
             "framerate=30000/1001",
             {codec::h264, 640, 360, 30000, 1001, 0}},
        Pair{"video/x-h265, stream-format=byte-stream, alignment=au", {codec::h265, 0, 0, 0, 1, 0}},
        Pair{"image/jpeg, width=320, height=240", {codec::mjpeg, 320, 240, 0, 1, 0}},
        Pair{"audio/mpeg, mpegversion=4, stream-format=adts, framed=true, rate=44100, channels=2",
             {codec::aac, 0, 0, 44100, 1, 2}},
        Pair{"audio/x-opus, rate=48000, channels=1, channel-mapping-family=0, stream-count=1, "
             "coupled-count=0",
             {codec::opus, 0, 0, 48000, 1, 1}},
        Pair{"audio/x-alaw, rate=8000, channels=1", {codec::pcma, 0, 0, 8000, 1, 1}},
        Pair{"audio/x-mulaw, rate=16000, channels=2", {codec::pcmu, 0, 0, 16000, 1, 2}},
        Pair{"video/x-raw, format=GRAY8, width=64, height=48, framerate=25/1",
             {codec::gray8, 64, 48, 25, 1, 0}},
        Pair{"video/x-raw, format=I420, width=64, height=48, framerate=0/1",
             {codec::i420, 64, 48, 0, 1, 0}}));

TEST_F(Format_Caps, what_a_stream_does_not_carry_is_refused_by_name) {
    std::string why_not;
    EXPECT_FALSE(gst::format_of(caps("video/x-vp9").get(), why_not));
    EXPECT_NE(why_not.find("video/x-vp9"), std::string::npos) << why_not;
    EXPECT_FALSE(
        gst::format_of(caps("video/x-h264, stream-format=avc, alignment=au").get(), why_not));
    EXPECT_NE(why_not.find("byte-stream"), std::string::npos) << why_not;
    EXPECT_FALSE(gst::format_of(caps("video/x-raw, format=Y444").get(), why_not));
    EXPECT_FALSE(gst::format_of(caps("audio/x-opus, channel-mapping-family=1").get(), why_not));
    EXPECT_FALSE(gst::format_of(caps("image/jpeg, width=[1, 10]").get(), why_not));
    EXPECT_FALSE(gst::format_of(nullptr, why_not));
}

TEST_F(Format_Caps, hostile_formats_have_caps_without_the_nonsense_or_none) {
    std::string why_not;
    const Caps video(gst::caps_of({codec::h264, ~0U, 1, 5, 0, ~0U}, why_not));
    ASSERT_TRUE(video);
    EXPECT_TRUE(gst_caps_is_equal(
        video.get(), caps("video/x-h264, stream-format=byte-stream, alignment=au").get()));
    EXPECT_EQ(gst::caps_of({codec::i420, 0x7fffffff, 0x7fffffff, 0, 1, 0}, why_not), nullptr);
    EXPECT_EQ(gst::caps_of({codec::i420, 0, 48, 0, 1, 0}, why_not), nullptr);
    EXPECT_EQ(gst::caps_of({codec::raw, 64, 48, 0, 1, 0}, why_not), nullptr);
    EXPECT_NE(why_not.find("RAW"), std::string::npos) << why_not;
    EXPECT_EQ(gst::caps_of({0, 0, 0, 0, 0, 0}, why_not), nullptr);
}

TEST_F(Format_Caps, raw_pictures_have_one_length) {
    EXPECT_EQ(gst::payload_bytes_of({codec::i420, 64, 48, 0, 1, 0}), 64U * 48U * 3U / 2U);
    EXPECT_EQ(gst::payload_bytes_of({codec::gray8, 62, 2, 0, 1, 0}), 128U);  // rows of 64
    EXPECT_EQ(gst::payload_bytes_of({codec::h264, 64, 48, 0, 1, 0}), 0U);
}

}  // namespace
