// SPDX-License-Identifier: Apache-2.0
//
// Audio from a file to a recording, through a real center: what its headers say, what a recorder
// writes, and what the tool says of damage.
#include "frame/frame_subscriber.h"
#include "tool/split_audio.h"
#include "tool/tool_frames.h"

namespace {

using namespace std::chrono_literals;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;
namespace frame_flag = zav_shm::frame_flag;

class Tool_Audio : public Tool_Frames {
protected:
    struct Sent {
        ZAV_SHM_Frame_Header header;
        Bytes payload;
    };

    // All frames of a file, as somebody sees them who asks for the history afterwards.
    std::vector<Sent> publish(const std::string& file, int expected_status = 0,
                              const std::vector<std::string>& more = {"--fps", "0"}) {
        std::vector<std::string> words{file, "--index", path("sent")};
        words.insert(words.end(), more.begin(), more.end());
        Tool_Process publisher = start_publisher(words);
        EXPECT_EQ(publisher.status(), expected_status) << publisher.errors();
        errors_ = publisher.errors();
        ZAV_SHM_Frame_Subscriber tap({.producer = "CAM_LOOP", .from = zav_shm::start::oldest});
        EXPECT_TRUE(tap.open());
        std::vector<Sent> sent;
        Received_Frame frame;
        while (tap.receive(frame, 0ms) == Receive_Status::frame) {
            const auto payload = frame.payload();
            sent.push_back({frame.header, Bytes(payload.begin(), payload.end())});
        }
        return sent;
    }

    // Records what is published meanwhile.
    std::string record(const std::string& file, const std::vector<std::string>& more = {}) {
        std::vector<std::string> words{"-o", path("out"), "--index", path("written")};
        words.insert(words.end(), more.begin(), more.end());
        Tool_Process recorder = start_recorder(words);
        recorder.says("connected");
        publish(file);
        recorder.says("CAM_LOOP/0/0: ");
        end(recorder);
        recorder_errors_ = recorder.errors();
        return content(path("out"));
    }

    bool says(const std::string& text) const { return errors_.find(text) != std::string::npos; }

    std::string errors_;
    std::string recorder_errors_;
};

// ---- headers ----

TEST_F(Tool_Audio, each_frame_of_aac_tells_codec_rate_channels_and_time) {
    const auto sent = publish(stream("tone_stereo.aac"));
    ASSERT_EQ(sent.size(), 23U);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        const auto& header = sent[i].header;
        EXPECT_EQ(header.codec, zav_shm::codec::aac);
        EXPECT_EQ(header.rate_num, 44100U);
        EXPECT_EQ(header.rate_den, 1U);
        EXPECT_EQ(header.channels, 2U);
        EXPECT_EQ(header.width + header.height, 0U);
        EXPECT_EQ(header.pts_ns, static_cast<std::int64_t>(i * 1024 * 1'000'000'000 / 44100));
        EXPECT_NEAR(header.duration_us, 23219.95, 1);
        EXPECT_EQ(header.flags, frame_flag::key_frame | frame_flag::codec_configuration |
                                    (i == 22 ? frame_flag::end_of_stream : 0));
    }
}

TEST_F(Tool_Audio, opus_begins_before_time_0_by_what_is_not_to_be_heard) {
    if (!zav_shm::audio::has_ogg()) {
        GTEST_SKIP() << "built without libogg";
    }
    const auto sent = publish(stream("tone_mono.opus"));
    ASSERT_EQ(sent.size(), 51U);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        const auto& header = sent[i].header;
        EXPECT_EQ(header.codec, zav_shm::codec::opus);
        EXPECT_EQ(header.rate_num, 48000U);
        EXPECT_EQ(header.channels, 1U);
        EXPECT_EQ(header.pts_ns, -6'500'000 + static_cast<std::int64_t>(i) * 20'000'000);
        EXPECT_EQ(header.duration_us, i == 50 ? 13'500U : 20'000U);
        EXPECT_EQ(header.flags, frame_flag::key_frame | (i == 50 ? frame_flag::end_of_stream : 0));
    }
    EXPECT_TRUE(says("312 samples are not to be heard"));
}

TEST_F(Tool_Audio, a_change_of_rate_goes_on_in_time_and_is_told) {
    write(path("in"), content(stream("tone_mono.aac")) + content(stream("tone_stereo.aac")));
    const auto sent = publish(path("in"));
    ASSERT_EQ(sent.size(), 40U);
    EXPECT_EQ(sent[17].header.pts_ns, 17 * 64'000'000);
    EXPECT_EQ(sent[17].header.rate_num, 44100U);
    EXPECT_EQ(sent[18].header.pts_ns, 17 * 64'000'000 + 1024LL * 1'000'000'000 / 44100);
    EXPECT_TRUE(says("changes from 16000 Hz, 1 channel to 44100 Hz, 2 channels at frame 18"));
}

TEST_F(Tool_Audio, a_file_has_its_own_pace) {
    const auto begin = std::chrono::steady_clock::now();
    publish(stream("tone_mono.aac"), 0, {});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 16 * 64ms);
}

TEST_F(Tool_Audio, a_loop_goes_on_in_time) {
    const auto sent =
        publish(stream("tone_mono.aac"), 0, {"--fps", "0", "--loop", "--count", "40"});
    ASSERT_EQ(sent.size(), 40U);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].header.pts_ns, static_cast<std::int64_t>(i) * 64'000'000);
        EXPECT_EQ(sent[i].header.flags & frame_flag::end_of_stream, 0);
    }
}

TEST_F(Tool_Audio, a_pipe_is_taken_as_it_comes) {
    Tool_Process publisher = start_publisher({"-", "--index", path("sent")},
                                             "cat '" + stream("tone_stereo.aac") + "' | \"$@\"");
    EXPECT_EQ(publisher.status(), 0) << publisher.errors();
    EXPECT_EQ(publisher.figure("published"), 23);
}

// ---- recordings ----

TEST_F(Tool_Audio, a_recording_of_aac_is_the_source_byte_for_byte) {
    EXPECT_EQ(record(stream("tone_stereo.aac"), {"--strict"}), content(stream("tone_stereo.aac")));
}

TEST_F(Tool_Audio, a_recording_of_opus_has_the_packets_times_and_end_of_the_source) {
    if (!zav_shm::audio::has_ogg()) {
        GTEST_SKIP() << "built without libogg";
    }
    for (const char* name : {"tone_mono.opus", "tone_stereo.opus"}) {
        const std::string recorded = record(stream(name), {"--strict"});
        const auto source = split_opus(stream_file(name));
        const auto again = split_opus(bytes_of(recorded));
        EXPECT_EQ(again.frames, source.frames) << name;
        EXPECT_TRUE(again.complaints.empty());

        // The index names the packets.
        std::istringstream index(content(path("written")));
        std::string line;
        for (const Kept_Audio& frame : source.frames) {
            std::size_t stream = 0, sequence = 0, size = 0, key = 0, offset = 0;
            ASSERT_TRUE(std::getline(index, line));
            std::istringstream(line) >> stream >> sequence >> size >> key >> offset;
            EXPECT_EQ(key, 1U);
            EXPECT_EQ(bytes_of(recorded.substr(offset, size)), frame.bytes);
        }
    }
}

TEST_F(Tool_Audio, opus_that_is_joined_in_mid_stream_skips_what_a_decoder_cannot_make_yet) {
    if (!zav_shm::audio::has_ogg()) {
        GTEST_SKIP() << "built without libogg";
    }
    publish(stream("tone_mono.opus"));
    Tool_Process recorder = start({"record", "--tap", "--pair", "CAM_LOOP", "--from",
                                   "last-key-frame", "--frames", "1", "-o", path("late")});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    const auto split = split_opus(bytes_of(content(path("late"))));
    ASSERT_EQ(split.frames.size(), 1U) << recorder.errors();
    EXPECT_EQ(split.frames[0].pre_skip, 3840U);
    EXPECT_EQ(split.frames[0].bytes, split_opus(stream_file("tone_mono.opus")).frames[50].bytes);
}

TEST_F(Tool_Audio, watch_counts_every_frame_as_a_key_frame) {
    Tool_Process publisher = start_publisher({stream("tone_mono.aac"), "--loop"});
    publisher.says("is AAC");
    Tool_Process watch = start({"watch", "--tap", "--pair", "CAM_LOOP", "--json", "--count", "2"});
    EXPECT_EQ(watch.status(), 0);
    EXPECT_EQ(watch.output().find("\"key_frame_age_s\":null"), std::string::npos);
    end(publisher);
}

// ---- damage ----

TEST_F(Tool_Audio, damage_is_told_counted_and_marked) {
    std::string damaged = content(stream("tone_mono.aac"));
    const auto frames = split_adts(stream_file("tone_mono.aac")).frames;
    damaged.insert(frames[0].bytes.size() + frames[1].bytes.size(), "garbage");
    damaged.resize(damaged.size() - 10);
    write(path("in"), damaged);
    const auto sent = publish(path("in"), incomplete);
    ASSERT_EQ(sent.size(), 16U);
    EXPECT_TRUE(says("7 bytes that are no AAC frame, behind frame 2: left out")) << errors_;
    EXPECT_TRUE(says("of an AAC frame that is cut off at the end, behind frame 16")) << errors_;
    EXPECT_TRUE(says("at 2 places of")) << errors_;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ((sent[i].header.flags & frame_flag::discontinuity) != 0, i == 2) << i;
    }
    EXPECT_NE(sent[15].header.flags & frame_flag::end_of_stream, 0);
}

TEST_F(Tool_Audio, what_stands_before_the_first_frame_is_told_and_no_loss) {
    write(path("in"), "abc" + content(stream("tone_mono.aac")));
    EXPECT_EQ(publish(path("in")).size(), 17U);
    EXPECT_TRUE(says("3 bytes before the first AAC frame: left out")) << errors_;
}

// ---- what does not go ----

TEST_F(Tool_Audio, options_of_pictures_do_not_go_with_it) {
    for (const std::vector<std::string>& option :
         {std::vector<std::string>{"--fps", "25"}, {"--width", "10"}, {"--unit-limit", "100"}}) {
        publish(stream("tone_mono.aac"), usage, option);
        EXPECT_TRUE(says(option[0] + " does not go with AAC")) << errors_;
    }
}

TEST_F(Tool_Audio, another_codec_than_was_said_is_named) {
    publish(stream("tone_mono.aac"), input_output, {"--codec", "opus"});
    EXPECT_TRUE(says("is a stream of AAC")) << errors_;
    publish(stream("plain.h264"), input_output, {"--codec", "aac"});
    EXPECT_TRUE(says("is a stream of H.264")) << errors_;
    write(path("noise"), std::string(5000, '\xFF'));
    publish(path("noise"), input_output, {"--codec", "aac"});
    EXPECT_TRUE(says("there is no frame of AAC")) << errors_;
    publish(stream("surround.opus"), input_output, {});
    EXPECT_TRUE(says("6 channels") || !zav_shm::audio::has_ogg()) << errors_;
    write(path("other"), "OggS" + std::string(100, 'x'));
    publish(path("other"), input_output, {});
    EXPECT_TRUE(says("no stream of Opus begins in its 104 bytes")) << errors_;
}

}  // namespace
