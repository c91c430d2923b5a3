// SPDX-License-Identifier: Apache-2.0
//
// Real streams: from encoders through zavsink and zavsrc to decoders, files and clocks.
#include <gst/app/gstappsink.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "source_fixture.h"

using namespace std::chrono_literals;

namespace {

/// As Source_Element, with zavsink for a producer.
class Source_Pipeline : public Source_Element {
protected:
    void SetUp() override {
        Center::SetUp();
        start(media_configuration);
    }
};

struct Codec_Case {
    const char* name;
    const char* encoder;  // with its source
    const char* decoder;
};

class Source_Of : public Source_Pipeline, public testing::WithParamInterface<Codec_Case> {};

std::string into_sink(const std::string& encoder, const std::string& more = "") {
    return encoder +
           " ! tee name=t ! queue ! appsink name=out sync=false "
           "t. ! queue ! zavsink producer=CAM_LOOP history=8000000 " +
           more;
}

// Two seconds of them; a decoder may leave out what it needs to begin with.
TEST_P(Source_Of, frames_come_out_as_they_went_in_and_decode) {
    Taking_Pipeline sink(into_sink(GetParam().encoder));
    sink.set_state(GST_STATE_PLAYING);
    const auto sent = sink.rest();
    ASSERT_GT(sent.size(), 40U);

    Taking_Pipeline source(
        "zavsrc producer=CAM_LOOP from=oldest end-of-stream=true ! tee name=t "
        "! queue max-size-buffers=0 max-size-time=0 max-size-bytes=0 ! appsink name=out sync=false "
        "t. ! queue max-size-buffers=0 max-size-time=0 max-size-bytes=0 ! " +
        std::string(GetParam().decoder) + " ! appsink name=decoded sync=false");
    source.set_state(GST_STATE_PLAYING);
    const auto taken = source.rest();
    ASSERT_EQ(taken.size(), sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        ASSERT_EQ(taken[i].bytes, sent[i].bytes) << i;
        ASSERT_EQ(taken[i].pts_ns - taken[0].pts_ns, sent[i].running_ns - sent[0].running_ns) << i;
        ASSERT_EQ(taken[i].is_delta, sent[i].is_delta) << i;
    }
    EXPECT_GE(source.rest("decoded").size() + 2, sent.size());
}

INSTANTIATE_TEST_SUITE_P(
    Every_Codec, Source_Of,
    testing::Values(
        Codec_Case{"h264",
                   "videotestsrc num-buffers=50 ! video/x-raw,width=320,height=240,framerate=25/1 "
                   "! x264enc key-int-max=10 bframes=2 speed-preset=ultrafast "
                   "! h264parse config-interval=-1 "
                   "! video/x-h264,stream-format=byte-stream,alignment=au",
                   "h264parse ! avdec_h264"},
        Codec_Case{"h265",
                   "videotestsrc num-buffers=50 ! video/x-raw,width=320,height=240,framerate=25/1 "
                   "! x265enc key-int-max=10 speed-preset=ultrafast tune=zerolatency "
                   "! h265parse config-interval=-1 "
                   "! video/x-h265,stream-format=byte-stream,alignment=au",
                   "h265parse ! avdec_h265"},
        Codec_Case{"jpeg",
                   "videotestsrc num-buffers=50 ! video/x-raw,width=320,height=240,framerate=25/1 "
                   "! jpegenc",
                   "jpegdec"},
        Codec_Case{"aac",
                   "audiotestsrc num-buffers=100 ! audio/x-raw,rate=48000,channels=2 "
                   "! avenc_aac ! aacparse ! audio/mpeg,stream-format=adts",
                   "aacparse ! avdec_aac"},
        Codec_Case{"opus",
                   "audiotestsrc num-buffers=100 ! audio/x-raw,rate=48000,channels=2 ! opusenc",
                   "opusdec"},
        Codec_Case{"alaw",
                   "audiotestsrc num-buffers=100 ! audio/x-raw,rate=8000,channels=1 ! alawenc",
                   "alawdec"},
        Codec_Case{"mulaw",
                   "audiotestsrc num-buffers=100 ! audio/x-raw,rate=8000,channels=1 ! mulawenc",
                   "mulawdec"},
        Codec_Case{"raw",
                   "videotestsrc num-buffers=50 ! video/x-raw,format=NV12,width=160,height=120",
                   "videoconvert"}),
    [](const auto& tested) { return std::string(tested.param.name); });

// What a player shows of one file, in its order.
std::vector<Taken> pictures_of(const std::filesystem::path& file) {
    Taking_Pipeline player("filesrc location=" + file.string() +
                           " ! qtdemux ! h264parse ! avdec_h264 ! appsink name=out sync=false");
    player.set_state(GST_STATE_PLAYING);
    return player.rest();
}

// Pictures are reordered by B frames, so what is shown lies behind or before what is stored.
TEST_F(Source_Pipeline, fragmented_mp4_in_segments_shows_every_picture_at_its_time) {
    const auto folder = std::filesystem::temp_directory_path() /
                        ("zavsrc_test_" + std::to_string(gst_util_get_timestamp()));
    std::filesystem::create_directories(folder);
    Taking_Pipeline sink(
        into_sink("videotestsrc num-buffers=75 ! video/x-raw,width=320,height=240,framerate=25/1 "
                  "! x264enc key-int-max=25 bframes=2 b-adapt=false speed-preset=ultrafast "
                  "! h264parse config-interval=-1 ! "
                  "video/x-h264,stream-format=byte-stream,alignment=au"));
    sink.set_state(GST_STATE_PLAYING);
    ASSERT_EQ(sink.rest().size(), 75U);
    Taking_Pipeline recorder(
        "zavsrc producer=CAM_LOOP from=oldest end-of-stream=true ! h264parse ! splitmuxsink "
        "max-size-time=1000000000 muxer-factory=mp4mux "
        "muxer-properties=\"properties,fragment-duration=(uint)500\" location=" +
        folder.string() + "/%d.mp4");
    recorder.set_state(GST_STATE_PLAYING);
    ASSERT_TRUE(recorder.ends());

    for (int file = 0; file < 3; ++file) {
        const auto pictures = pictures_of(folder / (std::to_string(file) + ".mp4"));
        ASSERT_EQ(pictures.size(), 25U) << file;
        for (std::size_t i = 0; i < pictures.size(); ++i) {
            const std::int64_t behind_first = static_cast<std::int64_t>(i) * 40 * ms;
            const std::int64_t off = pictures[i].running_ns - pictures[0].running_ns - behind_first;
            EXPECT_LT(std::abs(off), ms) << i << " of file " << file;
        }
    }
    std::filesystem::remove_all(folder);
}

/// What a producer makes, by its own times.
struct Made {
    std::vector<std::int64_t> flashes;
    std::vector<Taken> sounds;
};

// Makes a picture at each full second white.
GstPadProbeReturn flash(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer made) {
    auto* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    if (GST_BUFFER_PTS(buffer) % GST_SECOND < 40 * GST_MSECOND) {
        static_cast<Made*>(made)->flashes.push_back(
            static_cast<std::int64_t>(GST_BUFFER_PTS(buffer)));
        buffer = gst_buffer_make_writable(buffer);
        gst_buffer_memset(buffer, 0, 235, 160U * 120U);
        GST_PAD_PROBE_INFO_DATA(info) = buffer;
    }
    return GST_PAD_PROBE_OK;
}

GstPadProbeReturn keep(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer made) {
    auto* const buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    Taken sound;
    sound.bytes.resize(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, sound.bytes.data(), sound.bytes.size());
    sound.running_ns = static_cast<std::int64_t>(GST_BUFFER_PTS(buffer));
    static_cast<Made*>(made)->sounds.push_back(std::move(sound));
    return GST_PAD_PROBE_OK;
}

void probe(const Taking_Pipeline& pipeline, const char* element, GstPadProbeCallback call,
           Made& made) {
    GstPad* const pad = gst_element_get_static_pad(pipeline.element(element).get(), "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, call, &made, nullptr);
    gst_object_unref(pad);
}

// When pictures become white.
std::vector<std::int64_t> flashes_in(const std::vector<Taken>& pictures) {
    std::vector<std::int64_t> found;
    bool was_white = false;
    for (const Taken& picture : pictures) {
        const bool is_white = picture.bytes.at(160U * 60U) > std::byte{128};
        if (is_white && !was_white) {
            found.push_back(picture.running_ns);
        }
        was_white = is_white;
    }
    return found;
}

// When 16-bit samples, 8000 per second, begin to be heard behind silence.
std::vector<std::int64_t> ticks_in(const std::vector<Taken>& sounds) {
    std::vector<std::int64_t> found;
    for (const Taken& sound : sounds) {
        for (std::size_t i = 0; i + 1 < sound.bytes.size(); i += 2) {
            const auto sample =
                static_cast<std::int16_t>(std::to_integer<unsigned>(sound.bytes[i]) |
                                          (std::to_integer<unsigned>(sound.bytes[i + 1]) << 8U));
            const std::int64_t at =
                sound.running_ns + static_cast<std::int64_t>(i / 2) * 1'000'000'000 / 8000;
            const bool is_silent_before = found.empty() || at - found.back() > 500 * ms;
            if (std::abs(sample) > 1000 && is_silent_before) {
                found.push_back(at);
            }
        }
    }
    return found;
}

// Flashes and ticks that are made at the same moments come out at the same moments, each through
// an encoder and a stream of its own, in real time: the encoder of the pictures, which reorders
// them, keeps them for a while. ZAV_TEST_SYNC_SECONDS=60 is the long form.
TEST_F(Source_Pipeline, sound_and_pictures_stay_in_sync) {
    const char* const wanted = std::getenv("ZAV_TEST_SYNC_SECONDS");
    const int seconds = wanted != nullptr ? std::atoi(wanted) : 4;
    Taking_Pipeline receiver(
        "zavsrc producer=CAM_LOOP from=live end-of-stream=true ! h264parse ! avdec_h264 "
        "! appsink name=out sync=true "
        "zavsrc producer=CAM_LOOP stream=1 from=live end-of-stream=true ! alawdec "
        "! appsink name=sound sync=true");
    receiver.set_state(GST_STATE_PLAYING);
    Taking_Pipeline producer(
        "videotestsrc is-live=true pattern=black num-buffers=" + std::to_string(seconds * 25) +
        " ! video/x-raw,format=I420,width=160,height=120,framerate=25/1 ! identity name=mark "
        "! x264enc key-int-max=25 bframes=2 b-adapt=false speed-preset=ultrafast rc-lookahead=10 "
        "! h264parse config-interval=-1 ! zavsink producer=CAM_LOOP "
        "audiotestsrc is-live=true wave=ticks samplesperbuffer=160 num-buffers=" +
        std::to_string(seconds * 50) +
        " ! audio/x-raw,format=S16LE,rate=8000,channels=1 ! identity name=heard ! alawenc ! "
        "zavsink name=sound producer=CAM_LOOP "
        "stream=1");
    Made made;
    probe(producer, "mark", flash, made);
    probe(producer, "heard", keep, made);
    producer.set_state(GST_STATE_PLAYING);
    const auto pictures = receiver.rest();
    ASSERT_EQ(pictures.size(), static_cast<std::size_t>(seconds) * 25);
    const auto flashes = flashes_in(pictures);
    const auto ticks = ticks_in(receiver.rest("sound"));
    const auto ticks_made = ticks_in(made.sounds);
    ASSERT_EQ(flashes.size(), static_cast<std::size_t>(seconds));
    ASSERT_EQ(made.flashes.size(), flashes.size());
    ASSERT_EQ(ticks.size(), ticks_made.size());
    ASSERT_GE(ticks.size(), flashes.size());
    std::int64_t worst = 0;
    for (std::size_t i = 0; i < flashes.size(); ++i) {
        const std::int64_t apart = flashes[i] - ticks[i];
        worst = std::max(worst, std::abs(apart - (made.flashes[i] - ticks_made[i])));
    }
    std::printf("%zu flashes, at most %.3f ms out of sync\n", flashes.size(),
                static_cast<double>(worst) / 1e6);
    EXPECT_LT(worst, 1 * ms);
}

}  // namespace
