// SPDX-License-Identifier: Apache-2.0
//
// Where frames come from and go to: named pipes without a partner, media that are full, and
// standard output that is closed.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <numeric>

#include "support/threads.h"
#include "tool/tool_frames.h"

namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

class Tool_Output : public Tool_Frames {
protected:
    std::string named_pipe(const std::string& name) {
        EXPECT_EQ(mkfifo(path(name).c_str(), 0600), 0);
        return path(name);
    }

    Tool_Process synthetic(const Words& more) {
        Words words{"--synthetic", "--fps", "50", "--quiet"};
        words.insert(words.end(), more.begin(), more.end());
        return start_publisher(words);
    }

    Words record(const Words& more) {
        Words words{"record", "--name", "RECODER", "--pair", "CAM_LOOP"};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
};

// ---- named pipes without a partner ----

TEST_F(Tool_Output, waiting_for_the_partner_of_a_pipe_ends_at_a_signal) {
    const std::string pipe = named_pipe("pipe");
    const Words publish{"publish", "--name", "CAM_LOOP"};
    const auto with = [](Words words, const Words& more) {
        words.insert(words.end(), more.begin(), more.end());
        return words;
    };
    for (const Words& words :
         {record({"-o", pipe}), record({"-o", path("out"), "--index", pipe}), with(publish, {pipe}),
          with(publish, {"--synthetic", "--index", pipe})}) {
        Tool_Process tool = start(words);
        std::this_thread::sleep_for(300ms);
        const Stopwatch watch;
        tool.signal(SIGTERM);
        EXPECT_EQ(tool.status(), input_output) << words.back();
        EXPECT_LT(watch.elapsed(), 5s);
        EXPECT_TRUE(tool.says("stopped by a signal before"));
        EXPECT_TRUE(tool.says(pipe));
    }
}

TEST_F(Tool_Output, waiting_for_the_reader_of_a_pipe_ends_with_the_duration) {
    const std::string pipe = named_pipe("pipe");
    Tool_Process tool = start(record({"-o", pipe, "--duration", "0.7"}));
    const Stopwatch watch;
    EXPECT_TRUE(tool.says("waiting for somebody who reads the pipe \"" + pipe + "\""));
    EXPECT_EQ(tool.status(), input_output);
    EXPECT_TRUE(tool.says("nobody reads the pipe \"" + pipe + "\""));
    EXPECT_LT(watch.elapsed(), 10s);
}

TEST_F(Tool_Output, a_pipe_cannot_begin_again) {
    Tool_Process tool = start_publisher({named_pipe("pipe"), "--loop"});
    EXPECT_EQ(tool.status(), input_output);
    EXPECT_TRUE(
        tool.says("cannot go back to the beginning of \"" + path("pipe") + "\" for --loop"));
}

TEST_F(Tool_Output, frames_go_through_pipes_whose_partners_come_late) {
    const std::string in = named_pipe("in");
    const std::string out = named_pipe("out");
    Tool_Process recorder = start(record({"-o", out}));
    Tool_Process publisher = start_publisher({in, "--fps", "10"});
    std::this_thread::sleep_for(300ms);
    Tool_Process reader = start({}, "cat '" + out + "' > '" + path("recorded") + "'");
    ASSERT_TRUE(recorder.says("connected"));
    std::this_thread::sleep_for(200ms);
    Tool_Process writer = start({}, "cat '" + stream("plain.h264") + "' > '" + in + "'");
    EXPECT_EQ(writer.status(), 0);
    EXPECT_EQ(publisher.status(), 0) << publisher.errors();
    std::this_thread::sleep_for(200ms);
    end(recorder);
    EXPECT_EQ(reader.status(), 0);
    EXPECT_EQ(recorder.figure("frames"), 20);
    EXPECT_TRUE(content(path("recorded")) == content(stream("plain.h264")));
}

TEST_F(Tool_Output, an_index_can_go_through_a_pipe_and_to_standard_output) {
    const std::string pipe = named_pipe("pipe");
    Tool_Process reader = start({}, "cat '" + pipe + "' > '" + path("index") + "'");
    Tool_Process recorder = start_recorder({"-o", path("out"), "--index", pipe});
    Tool_Process publisher =
        start_publisher({"--synthetic", "--fps", "20", "--count", "10", "--index", "-"});
    const std::string offered = publisher.output();
    EXPECT_EQ(publisher.status(), 0);
    EXPECT_EQ(std::count(offered.begin(), offered.end(), '\n'), 10) << offered;
    end(recorder);
    EXPECT_EQ(reader.status(), 0);
    EXPECT_EQ(static_cast<long>(index_lines(path("index")).size()), recorder.figure("frames"));
}

// ---- standard output that is closed or full ----

// Every command: "$@" is it, with its standard output closed, full, or open for reading only.
TEST_F(Tool_Output, that_is_closed_or_full_is_an_error_of_every_command) {
    const auto with_name = [](const char* command, const char* type) {
        return Words{command, "--name", "PLAYER", type, type[2] == 't' ? "Receiver" : "CAM_LOOP"};
    };
    Tool_Process publisher = synthetic({"--size", "100"});
    write("/dev/shm/shm/center_status.json", R"({"pid":)" + std::to_string(getpid()) + "}\n");
    Words watch = with_name("watch", "--pair");
    watch.insert(watch.end(), {"--count", "1"});
    for (const Words& words :
         {Words{"--help"}, Words{"--version"}, Words{"record", "--help"}, Words{"status"},
          Words{"status", "--json"}, with_name("query", "--type"), with_name("pair", "--pair"),
          Words{"kick", "on", "--wait", "0.1", "--json"}, watch,
          record({"-o", "-", "--frames", "3"})}) {
        for (const auto& [redirection, cause] :
             {std::pair{">&-", "Bad file descriptor"}, std::pair{">/dev/full", "No space left"},
              std::pair{"1</dev/null", "Bad file descriptor"}}) {
            Tool_Process tool = start(words, std::string("exec \"$@\" ") + redirection);
            EXPECT_EQ(tool.status(), input_output) << words[0] << " " << redirection;
            EXPECT_NE(tool.errors().find("standard output"), std::string::npos) << tool.errors();
            EXPECT_NE(tool.errors().find(cause), std::string::npos) << tool.errors();
        }
    }
    end(publisher);
    unlink("/dev/shm/shm/center_status.json");
}

TEST_F(Tool_Output, closed_standard_input_and_error_are_told_by_the_status) {
    Tool_Process input = start_publisher({"-"}, "exec \"$@\" <&-");
    EXPECT_EQ(input.status(), input_output);
    EXPECT_TRUE(input.says("cannot read standard input: Bad file descriptor"));
    Tool_Process errors = start({"query", "--type", "Receiver", "--name", "X"}, "exec \"$@\" 2>&-");
    EXPECT_EQ(errors.status(), refused);
    EXPECT_EQ(errors.output(), "");
}

TEST_F(Tool_Output, that_nobody_reads_does_not_keep_a_signal_from_watch) {
    const std::string fifo = named_pipe("pipe");
    const int pipe = open(fifo.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ASSERT_GE(pipe, 0);
    const std::string fill(1 << 20, 'x');
    ASSERT_GT(::write(pipe, fill.data(), fill.size()), 0);
    Tool_Process watcher = start({"watch", "--name", "PLAYER", "--pair", "CAM_LOOP", "--json"},
                                 "exec \"$@\" >'" + fifo + "'");
    std::this_thread::sleep_for(1500ms);  // the first line is due after a second
    watcher.signal(SIGTERM);
    EXPECT_EQ(watcher.status(), input_output);
    EXPECT_TRUE(watcher.says("cannot write to standard output: nobody reads it"));
    close(pipe);
}

// ---- a recorder that is killed ----

TEST_F(Tool_Output, the_index_of_a_killed_recorder_names_nothing_that_is_not_in_the_file) {
    Tool_Process recorder = start_recorder({"-o", path("out"), "--index", path("index")});
    Tool_Process publisher = synthetic({"--size", "1000"});
    const auto frames = [this] { return index_lines(path("index")).size(); };
    ASSERT_TRUE(becomes_true([&] { return frames() > 10; }));
    std::this_thread::sleep_for(500ms);  // half of what the file holds back
    recorder.signal(SIGKILL);
    leaves_cards = true;
    EXPECT_EQ(recorder.status(), 128 + SIGKILL);
    EXPECT_LE(frames() * 1000, content(path("out")).size());
    EXPECT_GT(frames(), 10U);
    end(publisher);
}

// ---- a full medium ----

class Tool_Full_Medium : public Tool_Output {
protected:
    static constexpr long medium_bytes = 1536 * 1024;

    void SetUp() override {
        Tool_Output::SetUp();
        ASSERT_EQ(mkdir(medium("").c_str(), 0700), 0);
        const std::string size = "size=" + std::to_string(medium_bytes);
        ASSERT_EQ(mount("tmpfs", medium("").c_str(), "tmpfs", 0, size.c_str()), 0);
    }
    void TearDown() override {
        EXPECT_EQ(umount(medium("").c_str()), 0);
        Tool_Output::TearDown();
    }

    std::string medium(const std::string& file) { return path("medium/" + file); }

    // What the account and the index say is what is in the file.
    void expect_truth(const Tool_Process& recorder, const std::string& file,
                      const std::string& index) {
        const auto lines = index_lines(index);
        const auto sum = std::accumulate(
            lines.begin(), lines.end(), 0UL,
            [](unsigned long bytes, const Index_Line& line) { return bytes + line.bytes; });
        const std::string recorded = content(file);
        EXPECT_EQ(recorded.size(), sum);
        EXPECT_EQ(recorder.figure("bytes"), static_cast<long>(sum));
        EXPECT_EQ(recorder.figure("frames"), static_cast<long>(lines.size()));
        EXPECT_EQ(content(index).back(), '\n');
        EXPECT_TRUE(recorder.says(" after " + std::to_string(lines.size()) + " frames, " +
                                  std::to_string(sum) + " bytes: No space left on device"));
    }
};

TEST_F(Tool_Full_Medium, what_is_told_and_indexed_is_what_is_there) {
    for (const char* more : {"--sync", "--strict"}) {
        Tool_Process recorder =
            start_recorder({"-o", medium("out"), "--index", path("index"), more});
        Tool_Process publisher = synthetic({"--size", "65000"});
        EXPECT_EQ(recorder.status(), input_output);
        expect_truth(recorder, medium("out"), path("index"));
        EXPECT_GT(content(medium("out")).size(), 1'000'000U);
        EXPECT_EQ(content(medium("out")).size() % 65000, 0U);
        end(publisher);
    }
}

TEST_F(Tool_Full_Medium, shared_by_file_and_index_holds_whole_lines) {
    Tool_Process recorder = start_recorder({"-o", medium("out"), "--index", medium("index")});
    Tool_Process publisher = synthetic({"--size", "65000"});
    EXPECT_EQ(recorder.status(), input_output);
    const auto lines = index_lines(medium("index"));
    EXPECT_FALSE(lines.empty());
    EXPECT_EQ(content(medium("index")).back(), '\n');
    EXPECT_LE(lines.size() * 65000, content(medium("out")).size());
    EXPECT_EQ(static_cast<long>(content(medium("out")).size()), recorder.figure("bytes"));
    end(publisher);
}

TEST_F(Tool_Full_Medium, of_the_index_alone_does_not_stop_the_recording) {
    write(medium("filler"), std::string(medium_bytes - 4096, 'x'));
    Tool_Process recorder = start_recorder(
        {"-o", path("out"), "--index", medium("index"), "--frames", "40", "--keep-all"});
    Tool_Process full = start({}, "cat /dev/zero > '" + medium("rest") + "'");
    EXPECT_NE(full.status(), 0);
    Tool_Process publisher = synthetic({"--size", "1000"});
    EXPECT_EQ(recorder.status(), input_output);
    EXPECT_TRUE(recorder.says("cannot write the index \"" + medium("index") + "\" after 0 lines"));
    EXPECT_EQ(recorder.figure("frames"), 40);
    EXPECT_EQ(content(path("out")).size(), 40'000U);
    end(publisher);
}

TEST_F(Tool_Full_Medium, of_standard_output_tells_what_is_there) {
    Tool_Process recorder = start_recorder({"-o", "-", "--index", path("index")},
                                           "exec \"$@\" > '" + medium("out") + "'");
    Tool_Process publisher = synthetic({"--size", "65000"});
    EXPECT_EQ(recorder.status(), input_output);
    const auto lines = index_lines(path("index"));
    EXPECT_EQ(recorder.figure("frames"), static_cast<long>(lines.size()));
    EXPECT_LE(lines.size() * 65000, content(medium("out")).size());
    EXPECT_GT((lines.size() + 1) * 65000, content(medium("out")).size());
    end(publisher);
}

}  // namespace
