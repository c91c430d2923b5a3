// SPDX-License-Identifier: Apache-2.0
//
// `record --directory`: one recording as a series of files.
#include <gtest/gtest.h>

#include <csignal>

#include "support/threads.h"
#include "tool/recorded_series.h"

namespace {

using namespace std::chrono_literals;

class Tool_Series : public Recorded_Series {
protected:
    // All files follow each other without a gap.
    void expect_one_recording(const std::vector<std::string>& names) const {
        unsigned long last = 0;
        for (const std::string& name : names) {
            const Lines lines = expect_whole(name);
            if (last != 0 && !lines.empty()) {
                EXPECT_EQ(lines.front().sequence, last + 1);
            }
            last = lines.empty() ? last : lines.back().sequence;
        }
    }

    static std::vector<std::string> lines_of(const std::string& text) {
        std::istringstream in(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }
};

TEST_F(Tool_Series, begins_a_file_at_a_key_frame_when_one_is_long_enough) {
    Tool_Process camera = start_camera();
    Tool_Process recorder = start_series({"--segment", "900ms", "--duration", "4", "--strict"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    const auto finished = lines_of(recorder.output());
    ASSERT_GE(finished.size(), 3U);
    EXPECT_EQ(recorder.figure("frames") > 60, true);
    expect_one_recording(finished);
    for (std::size_t i = 0; i + 1 < finished.size(); ++i) {
        const auto lines = index_lines(finished[i] + ".index");
        const auto next = index_lines(finished[i + 1] + ".index");
        EXPECT_GE(next.front().utc_ns - lines.front().utc_ns, 890'000'000);
        EXPECT_LT(lines.back().sequence - lines.front().sequence, 120U);
    }
    EXPECT_EQ(files().size(), finished.size());
    end(camera);
}

TEST_F(Tool_Series, begins_a_file_at_a_key_frame_when_one_is_large_enough) {
    Tool_Process camera = start_camera();
    Tool_Process recorder =
        start_series({"--segment-bytes", "100k", "--duration", "5", "--strict"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    const auto finished = lines_of(recorder.output());
    ASSERT_GE(finished.size(), 2U);
    expect_one_recording(finished);
    EXPECT_GE(content(finished.front()).size(), 100U << 10U);
    end(camera);
}

TEST_F(Tool_Series, begins_a_file_at_the_key_frame_after_sighup_and_goes_on) {
    Tool_Process camera = start_camera();
    Tool_Process recorder = start_series({"--strict", "--pattern", "one.h264"});
    ASSERT_TRUE(becomes_true([&] { return index_lines(path("files/one.h264.index")).size() > 5; }));
    recorder.signal(SIGHUP);
    EXPECT_EQ(recorder.read_line(), path("files/one.h264"));
    ASSERT_TRUE(
        becomes_true([&] { return index_lines(path("files/one-2.h264.index")).size() > 5; }));
    end(recorder);
    EXPECT_EQ(recorder.figure("lost"), 0);
    expect_one_recording({path("files/one.h264"), path("files/one-2.h264")});
    end(camera);
}

TEST_F(Tool_Series, replaces_no_file_that_is_there) {
    write(path("files/x.h264"), "mine");
    write(path("files/x-2.h264.part"), "of a recorder that was killed");
    Tool_Process camera = start_camera();
    Tool_Process recorder = start_series({"--pattern", "x.h264", "--duration", "1"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_EQ(recorder.output(), path("files/x-3.h264") + "\n");
    EXPECT_EQ(content(path("files/x.h264")), "mine");
    EXPECT_EQ(content(path("files/x-2.h264.part")), "of a recorder that was killed");
    end(camera);
}

TEST_F(Tool_Series, of_a_killed_recorder_leaves_the_part_that_was_written) {
    Tool_Process camera = start_camera();
    Tool_Process recorder = start_series({"--pattern", "x.h264"});
    ASSERT_TRUE(becomes_true([&] { return index_lines(path("files/x.h264.index")).size() > 5; }));
    recorder.signal(SIGKILL);
    leaves_cards = true;
    EXPECT_EQ(recorder.status(), 128 + SIGKILL);
    EXPECT_EQ(files(), std::vector<std::string>{path("files/x.h264.part")});
    const std::string whole = named_frames(units_, path("files/x.h264.index"));
    EXPECT_EQ(content(path("files/x.h264.part")).substr(0, whole.size()), whole);
    end(camera);
}

TEST_F(Tool_Series, needs_a_folder_that_can_be_written) {
    const Words words{"record", "--name", "RECODER", "--pair", "CAM_LOOP", "--directory"};
    for (const auto& [folder, reason] : {std::pair{path("none"), "No such file or directory"},
                                         std::pair{sample("sub.h264"), "Not a directory"}}) {
        Words all = words;
        all.push_back(folder);
        Tool_Process recorder = start(all);
        EXPECT_EQ(recorder.status(), input_output);
        EXPECT_TRUE(recorder.says("cannot write into \"" + folder + "\": " + reason));
    }
}

TEST_F(Tool_Series, is_asked_for_in_ways_that_make_sense) {
    const auto expect_mistake = [this](const Words& more, const std::string& text) {
        Words words{"record", "--name", "RECODER", "--pair", "CAM_LOOP"};
        words.insert(words.end(), more.begin(), more.end());
        Tool_Process tool = start(words);
        EXPECT_EQ(tool.status(), usage) << text;
        EXPECT_NE(tool.errors().find(text), std::string::npos) << tool.errors();
    };
    const std::string in = folder();
    expect_mistake({}, "either --output or --directory");
    expect_mistake({"-o", "x", "--directory", in}, "either --output or --directory");
    expect_mistake({"-o", "x", "--segment", "1m"}, "--directory");
    expect_mistake({"--directory", in, "--index", "x"}, "--index-each");
    expect_mistake({"--directory", in, "--segment", "0"}, "more than nothing");
    expect_mistake({"--directory", in, "--segment", "1d"}, "'1d' is no time");
    expect_mistake({"--directory", in, "--segment-bytes", "0"}, "'0' is no size");
    expect_mistake({"--directory", in, "--pattern", "a/b"}, "a slash");
    expect_mistake({"--directory", in, "--trigger", "SIGKILL", "--before", "1", "--after", "1"},
                   "'SIGKILL' is none of SIGUSR1");
    expect_mistake({"--directory", in, "--trigger", "SIGUSR1", "--before", "1"}, "--after");
    expect_mistake({"--directory", in, "--before", "1"}, "--trigger");
    expect_mistake({"--directory", in, "--trigger", "stdin", "--before", "1", "--after", "1",
                    "--from", "oldest"},
                   "--from does not go with --trigger");
}

}  // namespace
