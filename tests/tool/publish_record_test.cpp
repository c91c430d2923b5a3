// SPDX-License-Identifier: Apache-2.0
//
// Frames through a real center, from `publish` to `record`.
#include <fcntl.h>
#include <sys/stat.h>

#include <csignal>
#include <thread>

#include "support/threads.h"
#include "tool/split_streams.h"
#include "tool/tool_frames.h"

namespace {

using std::chrono::milliseconds;
using Words = std::vector<std::string>;

// ---- the way through ----

struct Way {
    const char* file;
    long frames;
};

class Tool_Way : public Tool_Frames, public testing::WithParamInterface<Way> {};

TEST_P(Tool_Way, what_is_recorded_is_the_file_bit_by_bit) {
    const std::string frames = std::to_string(GetParam().frames);
    write(path("out"), std::string(100'000, 'x'));  // an earlier recording is replaced
    Tool_Process recorder = start_recorder({"-o", path("out"), "--frames", frames, "--strict"});
    Tool_Process publisher = start_publisher({stream(GetParam().file), "--fps", "10"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_EQ(publisher.status(), 0) << publisher.errors();
    EXPECT_TRUE(content(path("out")) == content(stream(GetParam().file)));
    EXPECT_EQ(publisher.figure("frames"), GetParam().frames);
    EXPECT_EQ(publisher.figure("published"), GetParam().frames);
    EXPECT_EQ(recorder.figure("lost"), 0);
    EXPECT_EQ(recorder.figure("first"), 1);
    EXPECT_EQ(recorder.figure("last"), GetParam().frames);
}

INSTANTIATE_TEST_SUITE_P(Files, Tool_Way,
                         testing::Values(Way{"plain.h264", 20}, Way{"slices_aud.h264", 20},
                                         Way{"plain.h265", 12}, Way{"slices_aud.h265", 12}),
                         [](const auto& way) {
                             std::string name = way.param.file;
                             name[name.find('.')] = '_';
                             return name;
                         });

TEST_F(Tool_Frames, of_a_real_camera_stream_arrive_bit_by_bit) {
    Tool_Process recorder = start_recorder({"-o", path("out"), "--index", path("index")});
    Tool_Process publisher = start_publisher({sample("sub.h264"), "--fps", "60", "--count", "90"});
    EXPECT_EQ(publisher.status(), 0);
    end(recorder);
    const auto units =
        split(zav_shm::media::Video_Codec::h264, bytes_of(content(sample("sub.h264"))));
    const std::string recorded = content(path("out"));
    EXPECT_GT(recorded.size(), 10'000U);
    EXPECT_TRUE(recorded == named_frames(units, path("index")));
}

TEST_F(Tool_Frames, recording_begins_at_a_key_frame) {
    const auto units = split(zav_shm::media::Video_Codec::h264, stream_file("plain.h264"));
    Bytes headless;
    Bytes from_key;
    std::size_t keys = 0;
    for (std::size_t i = 1; i < units.size(); ++i) {  // the first key frame is left out
        headless = headless + units[i].bytes;
        keys += units[i].is_key ? 1U : 0U;
        from_key = keys > 0 ? from_key + units[i].bytes : from_key;
    }
    write(path("headless"), text_of(headless));
    const std::string frames =
        std::to_string(split(zav_shm::media::Video_Codec::h264, from_key).size());
    Tool_Process recorder = start_recorder({"-o", path("out"), "--frames", frames});
    Tool_Process publisher = start_publisher({path("headless"), "--codec", "h264", "--fps", "10"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_TRUE(content(path("out")) == text_of(from_key));
    EXPECT_GT(recorder.figure("skipped"), 0);
    EXPECT_EQ(publisher.status(), 0);
}

TEST_F(Tool_Frames, recording_begins_at_any_frame_if_asked_to) {
    Tool_Process recorder = start_recorder({"-o", path("out"), "--frames", "5", "--any-frame"});
    Tool_Process publisher = start_publisher(
        {"--synthetic", "--count", "30", "--key-interval", "1000", "--size", "100", "--fps", "20"});
    EXPECT_EQ(recorder.status(), 0);
    EXPECT_EQ(content(path("out")).size(), 500U);
    EXPECT_EQ(publisher.status(), 0);
}

TEST_F(Tool_Frames, from_a_pipe_arrive_bit_by_bit) {
    Tool_Process recorder = start_recorder({"-o", path("out"), "--frames", "20", "--strict"});
    Tool_Process publisher =
        start_publisher({"-", "--fps", "10"}, "cat '" + stream("plain.h264") + "' | \"$@\"");
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_EQ(publisher.status(), 0) << publisher.errors();
    EXPECT_TRUE(content(path("out")) == content(stream("plain.h264")));
}

TEST_F(Tool_Frames, of_a_file_in_a_loop_go_on) {
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--frames", "50"});
    Tool_Process publisher = start_publisher({stream("plain.h264"), "--loop", "--fps", "50"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    const auto units = split(zav_shm::media::Video_Codec::h264, stream_file("plain.h264"));
    EXPECT_TRUE(content(path("out")) == named_frames(units, path("index")));
    EXPECT_GT(recorder.figure("last"), 40);
    publisher.signal(SIGTERM);
    EXPECT_EQ(publisher.status(), 0);
}

// A camera's pipe: each picture goes out when the next one begins, not when a block is full.
TEST_F(Tool_Frames, of_a_slow_pipe_do_not_wait_for_more) {
    const std::string fifo = path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Tool_Process recorder = start_recorder({"-o", path("out"), "--frames", "3"});
    Tool_Process publisher = start_publisher({"-"}, "exec \"$@\" <'" + fifo + "'");
    const int pipe = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    const auto units = split(zav_shm::media::Video_Codec::h264, stream_file("plain.h264"));
    for (std::size_t i = 0; i < 4; ++i) {
        ASSERT_GT(::write(pipe, units[i].bytes.data(), units[i].bytes.size()), 0);
        std::this_thread::sleep_for(milliseconds(100));  // a camera's pace
    }
    EXPECT_EQ(recorder.status(), 0) << "three pictures while the pipe is still open";
    close(pipe);
    EXPECT_EQ(publisher.status(), 0);
    EXPECT_EQ(publisher.figure("frames"), 4);
}

// ---- standard output ----

TEST_F(Tool_Frames, nothing_but_payload_reaches_standard_output) {
    const auto units = split(zav_shm::media::Video_Codec::h264, stream_file("plain.h264"));
    for (const char* quiet : {"--quiet", "--strict"}) {
        Tool_Process recorder =
            start_recorder({"-o", "-", "--index", path("index"), "--frames", "20", quiet});
        Tool_Process publisher = start_publisher({stream("plain.h264"), "--loop", "--fps", "50"});
        const std::string output = recorder.output();
        recorder.status();
        EXPECT_GT(output.size(), 1000U);
        EXPECT_TRUE(output == named_frames(units, path("index")));
        end(publisher);
    }
}

TEST_F(Tool_Frames, a_pipe_whose_reader_has_gone_is_an_error_with_its_name) {
    Tool_Process recorder =
        start_recorder({"-o", "-"}, "\"$@\" | head -c 100 >/dev/null; echo ended");
    Tool_Process publisher = start_publisher({stream("plain.h264"), "--loop", "--fps", "50"});
    EXPECT_TRUE(recorder.says("cannot write to standard output after"));
    EXPECT_TRUE(recorder.says("Broken pipe"));
    EXPECT_EQ(recorder.output(), "ended\n");
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.status(), 0);
}

TEST_F(Tool_Frames, a_reader_that_stands_still_does_not_keep_a_signal_waiting) {
    const std::string fifo = path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int pipe = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    Tool_Process recorder = start_recorder({"-o", "-"}, "exec \"$@\" >'" + fifo + "'");
    Tool_Process publisher = start_publisher({"--synthetic", "--size", "60000", "--fps", "20"});
    std::this_thread::sleep_for(milliseconds(500));  // the pipe is full after two frames
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.status(), input_output);
    EXPECT_TRUE(recorder.says("nobody reads it"));
    close(pipe);
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.status(), 0);
}

TEST_F(Tool_Frames, a_full_medium_is_an_error_with_its_name) {
    Tool_Process recorder = start_recorder({"-o", "/dev/full"});
    Tool_Process publisher = start_publisher({"--synthetic", "--fps", "20"});
    EXPECT_EQ(recorder.status(), input_output);
    EXPECT_TRUE(recorder.says("cannot write to \"/dev/full\" after 0 frames, 0 bytes: No space"));
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.status(), 0);
}

TEST_F(Tool_Frames, a_file_that_may_not_grow_keeps_what_fits) {
    Tool_Process recorder = start_recorder({"-o", path("out")}, "ulimit -f 40; exec \"$@\"");
    Tool_Process publisher = start_publisher({"--synthetic", "--size", "10000", "--fps", "20"});
    EXPECT_EQ(recorder.status(), input_output);
    EXPECT_TRUE(recorder.says("File too large"));
    EXPECT_EQ(content(path("out")).size(), 20'000U) << "two whole frames of the 20,480 bytes";
    EXPECT_EQ(recorder.figure("bytes"), 20'000);
    EXPECT_EQ(recorder.figure("frames"), 2);
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.status(), 0);
}

// ---- the end ----

TEST_F(Tool_Frames, a_signal_ends_both_in_order) {
    for (const int number : {SIGINT, SIGTERM}) {
        Tool_Process recorder = start_recorder({"-o", path("out"), "--sync"});
        Tool_Process publisher = start_publisher({"--synthetic", "--fps", "50", "--size", "1000"});
        std::this_thread::sleep_for(milliseconds(500));
        publisher.signal(number);
        EXPECT_EQ(publisher.status(), 0);
        recorder.signal(number);
        EXPECT_EQ(recorder.status(), 0);
        EXPECT_GT(recorder.figure("frames"), 5);
        EXPECT_EQ(static_cast<long>(content(path("out")).size()), recorder.figure("bytes"));
        EXPECT_EQ(recorder.figure("bytes"), 1000 * recorder.figure("frames"));
    }
}

TEST_F(Tool_Frames, recording_ends_after_the_duration_also_without_frames) {
    const Stopwatch watch;
    Tool_Process recorder = start_recorder({"-o", path("out"), "--duration", "0.7"});
    EXPECT_EQ(recorder.status(), 0);
    EXPECT_GE(watch.elapsed(), milliseconds(600));
    EXPECT_EQ(recorder.figure("frames"), 0);
    Tool_Process strict = start_recorder({"-o", path("out"), "--duration", "0.1", "--strict"});
    EXPECT_EQ(strict.status(), incomplete) << "nothing came";
}

TEST_F(Tool_Frames, publishing_keeps_the_rate) {
    const Stopwatch watch;
    Tool_Process publisher = start_publisher({"--synthetic", "--fps", "25", "--count", "26"});
    EXPECT_EQ(publisher.status(), 0);
    EXPECT_GE(watch.elapsed(), milliseconds(1000));
    EXPECT_EQ(publisher.figure("frames"), 26);
    EXPECT_EQ(publisher.figure("published"), 26) << "whether anybody reads or not";
}

// ---- patterns ----

TEST_F(Tool_Frames, synthetic_ones_are_verified) {
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--frames", "40", "--verify-synthetic"});
    Tool_Process publisher = start_publisher({"--synthetic", "--size", "65536", "--fps", "50"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_EQ(recorder.figure("damaged"), 0);
    EXPECT_GE(recorder.figure("key_frames"), 1);
    EXPECT_EQ(content(path("out")).size(), 40U * 65536U);
    end(publisher);
}

TEST_F(Tool_Frames, others_are_not_taken_for_synthetic_ones) {
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--frames", "5", "--verify-synthetic"});
    Tool_Process publisher = start_publisher({stream("plain.h264"), "--fps", "50"});
    EXPECT_EQ(recorder.status(), incomplete);
    EXPECT_EQ(recorder.figure("damaged"), 5);
    EXPECT_EQ(publisher.status(), 0);
}

// ---- refusals ----

TEST_F(Tool_Frames, that_are_too_large_are_left_out_and_named) {
    const auto units = split(zav_shm::media::Video_Codec::h264, stream_file("plain.h264"));
    Bytes large = units[3].bytes + Bytes(70'000, std::byte{0x55});
    Bytes input;
    Bytes expected;
    for (std::size_t i = 0; i < units.size(); ++i) {
        input = input + (i == 3 ? large : units[i].bytes);
        expected = i < 3 || i >= 8 ? expected + units[i].bytes : expected;  // 8 is a key frame
    }
    write(path("in"), text_of(input));
    Tool_Process recorder = start_recorder({"-o", path("out"), "--frames", "15"});
    Tool_Process publisher = start_publisher({path("in"), "--fps", "10"});
    EXPECT_EQ(publisher.status(), incomplete);
    EXPECT_TRUE(publisher.says("frame 4 of " + std::to_string(large.size()) +
                               " bytes left out, page size of CAM_LOOP/0/0 is 65536"));
    EXPECT_TRUE(publisher.says("1 of 20 frames were too large"));
    EXPECT_EQ(publisher.figure("too_large"), 1);
    EXPECT_EQ(recorder.status(), 0);
    EXPECT_TRUE(content(path("out")) == text_of(expected));
    EXPECT_EQ(recorder.figure("lost"), 1);
    EXPECT_EQ(recorder.figure("skipped"), 4);
}

TEST_F(Tool_Frames, beyond_the_unit_limit_are_left_out_though_the_page_would_take_their_beginning) {
    const auto units = split(zav_shm::media::Video_Codec::h264, stream_file("plain.h264"));
    std::string expected;
    for (const Kept_Unit& unit : units) {
        expected += unit.bytes.size() > 150 ? "" : text_of(unit.bytes);
    }
    ASSERT_FALSE(expected.empty());
    Tool_Process publisher =
        start_publisher({stream("plain.h264"), "--fps", "0", "--unit-limit", "150"});
    EXPECT_EQ(publisher.status(), incomplete) << publisher.errors();
    EXPECT_TRUE(publisher.says("bytes left out, --unit-limit is 150"));
    EXPECT_EQ(publisher.figure("frames"), static_cast<long>(units.size()));
    EXPECT_EQ(publisher.figure("frames"),
              publisher.figure("published") + publisher.figure("too_large"));
    EXPECT_EQ(publisher.figure("bytes"), static_cast<long>(expected.size()));
}

TEST_F(Tool_Frames, that_are_synthetic_and_too_large_are_all_left_out) {
    Tool_Process publisher =
        start_publisher({"--synthetic", "--size", "65537", "--count", "9", "--fps", "0"});
    EXPECT_EQ(publisher.status(), incomplete);
    EXPECT_TRUE(publisher.says("9 of 9 frames were too large"));
}

TEST_F(Tool_Frames, of_a_name_that_the_center_does_not_know_are_refused_with_its_reason) {
    Tool_Process publisher = start({"publish", "--synthetic", "--name", "NOBODY"});
    EXPECT_EQ(publisher.status(), refused);
    EXPECT_TRUE(publisher.says("Can't Find Shm Name NOBODY Distributor"));
    Tool_Process channel = start_publisher({"--synthetic", "--channel", "7"});
    EXPECT_EQ(channel.status(), refused);
    EXPECT_TRUE(channel.says("there is no CAM_LOOP/7/0"));
    Tool_Process recorder =
        start({"record", "--name", "RECODER", "--pair", "NOBODY", "-o", path("out")});
    EXPECT_EQ(recorder.status(), refused);
    EXPECT_TRUE(recorder.says("Can't Find Shm Name NOBODY Distributor"));
    Tool_Process stream_2 = start(
        {"record", "--name", "RECODER", "--pair", "CAM_LOOP", "--stream", "2", "-o", path("out")});
    EXPECT_EQ(stream_2.status(), refused);
    EXPECT_TRUE(stream_2.says("there is no RECODER/0/2"));
}

TEST_F(Tool_Frames, recording_of_a_channel_that_is_not_there_disturbs_no_other) {
    Tool_Process recorder = start({"record", "--name", "RECODER", "--pair", "CAM_LOOP", "--channel",
                                   "1", "-o", path("out"), "--quiet"});
    ASSERT_TRUE(recorder.says("connected"));
    for (const char* command : {"record", "watch"}) {
        Words words{command, "--name", "RECODER", "--pair", "CAM_REC", "--channel", "1"};
        if (words[0] == "record") {
            words.insert(words.end(), {"-o", path("other")});
        }
        Tool_Process tool = start(words);
        EXPECT_EQ(tool.status(), refused);
        EXPECT_TRUE(tool.says("there is no CAM_REC/1/0"));
    }
    Tool_Process publisher =
        start_publisher({"--synthetic", "--channel", "1", "--fps", "20", "--count", "10"});
    EXPECT_EQ(publisher.status(), 0);
    recorder.signal(SIGTERM);
    EXPECT_EQ(recorder.status(), 0);
    EXPECT_EQ(recorder.figure("frames"), 10) << "the recorder is still paired";
}

// ---- two streams in turn ----

TEST_F(Tool_Frames, of_two_streams_in_turn_change_at_key_frames_only) {
    Tool_Process recorder = start_recorder(
        {"-o", path("out"), "--streams", "0,1", "--switch-every", "0.3", "--duration", "2.5"});
    Tool_Process main = start_publisher({stream("plain.h264"), "--loop", "--fps", "25"});
    Tool_Process sub =
        start_publisher({stream("slices_aud.h264"), "--stream", "1", "--loop", "--fps", "25"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_GE(recorder.figure("switches"), 2);
    // Frames of the second file begin with a delimiter, those of the first do not.
    Bytes recorded;
    for (const char character : content(path("out"))) {
        recorded.push_back(static_cast<std::byte>(character));
    }
    const auto units = split(zav_shm::media::Video_Codec::h264, recorded);
    const auto is_second = [](const Kept_Unit& unit) {
        return unit.bytes.size() > 4 && unit.bytes[4] == std::byte{0x09};
    };
    ASSERT_FALSE(units.empty());
    long changes = is_second(units[0]) ? 1 : 0;  // it begins with stream 0, wanting a frame of it
    for (std::size_t i = 1; i < units.size(); ++i) {
        if (is_second(units[i]) != is_second(units[i - 1])) {
            ++changes;
            EXPECT_TRUE(units[i].is_key) << i;
        }
    }
    EXPECT_EQ(changes, recorder.figure("switches"));
    EXPECT_EQ(static_cast<long>(units.size()), recorder.figure("frames"));
    for (Tool_Process* publisher : {&main, &sub}) {
        publisher->signal(SIGTERM);
        EXPECT_EQ(publisher->status(), 0);
    }
}

}  // namespace
