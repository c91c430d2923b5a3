// SPDX-License-Identifier: Apache-2.0
//
// What the tool makes of histories: where reading begins, who may write and read one, a publisher
// that waits for its readers, and requests for key frames.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "apps/tool/json_text.h"
#include "support/threads.h"
#include "tool/tool_frames.h"

namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

class Tool_History : public Tool_Frames {
protected:
    Tool_Process synthetic(const Words& more, const std::string& shell = "exec \"$@\"") {
        Words words{"--synthetic", "--quiet"};
        words.insert(words.end(), more.begin(), more.end());
        return start_publisher(words, shell);
    }

    Tool_Process tap(const Words& more) {
        Words words{"record", "--tap", "--pair", "CAM_LOOP", "-o", path("tapped")};
        words.insert(words.end(), more.begin(), more.end());
        return start(words);
    }

    static void expect_no_gap(const std::vector<Index_Line>& lines) {
        for (std::size_t i = 1; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].sequence, lines[i - 1].sequence + 1);
        }
    }
};

// ---- where reading begins ----

TEST_F(Tool_History, joining_after_nobody_has_read_tells_no_loss_and_gives_no_old_frame) {
    Tool_Process publisher = synthetic({"--fps", "100", "--key-interval", "10"});
    std::this_thread::sleep_for(1500ms);
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--frames", "20", "--strict"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_GT(recorder.figure("first"), 100);
    EXPECT_EQ(recorder.figure("lost"), 0);
    expect_no_gap(index_lines(path("index")));
    end(publisher);
    Tool_Process late = start_recorder({"-o", path("out"), "--duration", "0.3"});
    EXPECT_EQ(late.status(), 0);
    EXPECT_EQ(late.figure("frames"), 0) << "its producer has ended";
    EXPECT_EQ(late.figure("lost"), 0);
}

TEST_F(Tool_History, gives_a_picture_at_once_from_the_last_key_frame_on) {
    Tool_Process publisher = synthetic({"--fps", "10", "--key-interval", "1000"});
    std::this_thread::sleep_for(800ms);
    for (const char* from : {"", "newest-key", "last-key-frame", "oldest", "-0.3", "-60s"}) {
        const Stopwatch watch;
        Words words{"-o", path("out"), "--frames", "5", "--strict"};
        if (*from != '\0') {
            words.insert(words.end(), {"--from", from});
        }
        Tool_Process recorder = start_recorder(words);
        EXPECT_EQ(recorder.status(), 0) << recorder.errors();
        EXPECT_EQ(recorder.figure("first"), 1) << from;
        EXPECT_LT(watch.elapsed(), 5s) << "the next key frame comes after 100 s";
    }
    Tool_Process live = start_recorder({"-o", path("out"), "--duration", "0.5", "--from", "live"});
    EXPECT_EQ(live.status(), 0);
    EXPECT_EQ(live.figure("frames"), 0);
    EXPECT_GT(live.figure("skipped"), 0);
    end(publisher);
}

// What the former producer has left, live or ended, is none of the new one's.
TEST_F(Tool_History, of_a_former_producer_is_not_recorded_before_the_pictures_of_another) {
    Tool_Process former = synthetic({"--size", "4000", "--count", "30", "--fps", "50"});
    EXPECT_EQ(former.status(), 0);
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--strict"});
    Tool_Process other = start({"publish", "--synthetic", "--name", "CAM_REC", "--size", "5000",
                                "--fps", "25", "--key-interval", "5", "--quiet"});
    Tool_Process pair = start({"pair", "--name", "RECODER", "--pair", "CAM_REC"});
    EXPECT_EQ(pair.status(), 0) << pair.errors();
    ASSERT_TRUE(becomes_true([&] { return index_lines(path("index")).size() > 10; }));
    end(recorder);
    const auto lines = index_lines(path("index"));
    EXPECT_EQ(lines.front().entry, 1);
    for (const Index_Line& line : lines) {
        EXPECT_EQ(line.bytes, 5000U) << line.sequence;
    }
    expect_no_gap(lines);
    end(other);
}

// Both streams have one key frame only, in the past.
TEST_F(Tool_History, has_the_key_frame_for_a_change_of_stream_at_once) {
    const auto publish = [this](const char* stream) {
        return synthetic({"--stream", stream, "--fps", "20", "--key-interval", "100000", "--size",
                          "1000", "--history", "500000"});
    };
    Tool_Process main = publish("0");
    Tool_Process sub = publish("1");
    ASSERT_TRUE(sub.says("publishing CAM_LOOP/0/1"));
    std::this_thread::sleep_for(300ms);
    const Words words{"-o",         path("out"), "--index", path("index"),    "--from",
                      "oldest",     "--streams", "0,1",     "--switch-every", "0.3",
                      "--duration", "2"};
    Words at_once = words;
    at_once.emplace_back("--switch-at-once");
    Tool_Process fast = start_recorder(at_once);
    EXPECT_EQ(fast.status(), 0) << fast.errors();
    EXPECT_GE(fast.figure("switches"), 2);
    EXPECT_EQ(fast.figure("key_frames"), fast.figure("switches") + 1) << "each begins with one";
    EXPECT_EQ(fast.figure("lost"), 0);
    Tool_Process gapless = start_recorder(words);
    EXPECT_EQ(gapless.status(), 0) << gapless.errors();
    EXPECT_EQ(gapless.figure("switches"), 0) << "no key frame comes";
    EXPECT_EQ(gapless.figure("key_frames"), 1);
    end(main);
    end(sub);
}

// ---- who writes and who reads ----

TEST_F(Tool_History, has_one_publisher_and_the_second_is_told_which) {
    Tool_Process first = synthetic({"--fps", "20"});
    Tool_Process recorder = start_recorder({"-o", path("out"), "--any-frame", "--strict"});
    Tool_Process second = synthetic({"--fps", "20"});
    EXPECT_EQ(second.status(), no_system);
    EXPECT_TRUE(second.says("cannot publish CAM_LOOP/0/0: process " + std::to_string(first.pid()) +
                            " publishes CAM_LOOP/0/0"));
    std::this_thread::sleep_for(300ms);
    end(recorder);
    EXPECT_GT(recorder.figure("frames"), 5);
    end(first);
    Tool_Process third = synthetic({"--fps", "20", "--count", "3"});
    EXPECT_EQ(third.status(), 0) << third.errors();
}

TEST_F(Tool_History, is_read_whole_by_two_processes_of_one_name) {
    const Words words{"-o", path("out"), "--frames", "20", "--strict"};
    Words others = words;
    others[1] = path("other");
    Tool_Process one = start_recorder(words);
    Tool_Process other = start_recorder(others);
    Tool_Process publisher = start_publisher({stream("plain.h264"), "--fps", "20"});
    EXPECT_EQ(one.status(), 0) << one.errors();
    EXPECT_EQ(other.status(), 0) << other.errors();
    EXPECT_EQ(publisher.status(), 0);
    EXPECT_TRUE(content(path("out")) == content(stream("plain.h264")));
    EXPECT_TRUE(content(path("other")) == content(stream("plain.h264")));
}

TEST_F(Tool_History, is_read_by_a_tap_without_a_name_and_without_a_center) {
    Tool_Process publisher = synthetic({"--fps", "20", "--key-interval", "5"});
    ASSERT_TRUE(publisher.says("publishing"));
    center->kill();
    Tool_Process recorder = tap({"--from", "oldest", "--frames", "10", "--verify-synthetic"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    EXPECT_TRUE(recorder.says("tap of CAM_LOOP/0/0: connected"));
    EXPECT_EQ(recorder.figure("lost"), 0);
    Tool_Process watcher =
        start({"watch", "--tap", "--pair", "CAM_LOOP", "--json", "--count", "1"});
    EXPECT_GT(zav_shm::tool::parsed_json(watcher.output())["frames"].asInt(), 5);
    EXPECT_EQ(watcher.status(), 0);
    end(publisher);
    Tool_Process nobody = tap({"--duration", "1.5"});
    EXPECT_EQ(nobody.status(), 0);
    EXPECT_TRUE(nobody.says("waiting for producer"));
}

// ---- paced ----

class Tool_Paced : public Tool_History {
protected:
    // Records through a pipe that is read slowly, and publishes the file as fast as it is taken.
    Tool_Process record_slowly(const Words& publish) {
        const std::string fifo = path("fifo");
        EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        const int pipe = open(fifo.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
        EXPECT_GE(pipe, 0);
        Tool_Process recorder = start_recorder({"-o", "-"}, "exec \"$@\" >'" + fifo + "'");
        Tool_Process publisher = start_publisher(publish);
        std::vector<char> block(8192);
        int idle = 0;
        while (idle < 500) {  // a second
            const ssize_t got = read(pipe, block.data(), block.size());
            taken_.append(block.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
            idle = got > 0 ? 0 : idle + 1;
            std::this_thread::sleep_for(2ms);
        }
        EXPECT_EQ(publisher.status(), 0) << publisher.errors();
        waits_ = publisher.figure("waits");
        end(recorder);
        close(pipe);
        return recorder;
    }

    std::string taken_;
    long waits_ = 0;
};

TEST_F(Tool_Paced, publishing_of_a_file_loses_nothing_to_a_slow_recorder) {
    Tool_Process recorder = record_slowly({sample("sub.h264"), "--fps", "0"});
    EXPECT_TRUE(taken_ == content(sample("sub.h264")));
    EXPECT_EQ(recorder.figure("lost"), 0);
    EXPECT_GT(waits_, 0);
}

TEST_F(Tool_Paced, publishing_waits_for_nobody_if_told_so) {
    Tool_Process recorder = record_slowly({sample("sub.h264"), "--fps", "0", "--pace-limit", "0"});
    EXPECT_GT(recorder.figure("lost"), 0);
}

TEST_F(Tool_Paced, publishing_goes_on_beside_a_recorder_that_stands_still) {
    Tool_Process recorder = start_recorder({"-o", path("out")});
    recorder.signal(SIGSTOP);
    const Stopwatch watch;
    Tool_Process publisher = synthetic({"--fps", "0", "--size", "30000", "--count", "2000"});
    EXPECT_EQ(publisher.status(), 0);
    EXPECT_GE(publisher.figure("given_up"), 1);
    EXPECT_LT(watch.elapsed(), 10s);
    recorder.signal(SIGCONT);
    end(recorder);
    EXPECT_GT(recorder.figure("overtaken"), 0);
}

// ---- requests for key frames ----

TEST_F(Tool_History, readers_ask_for_a_key_frame_and_a_descriptor_gets_a_line) {
    Tool_Process publisher =
        synthetic({"--fps", "20", "--key-interval", "100000", "--on-key-request", "fd:7"},
                  "exec \"$@\" 7>'" + path("requests") + "'");
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(content(path("requests")), "");
    Tool_Process recorder = start_recorder(
        {"-o", path("out"), "--ask-for-key-frame", "--duration", "1", "--from", "live"});
    EXPECT_EQ(recorder.status(), 0);
    EXPECT_TRUE(publisher.says("a reader of CAM_LOOP/0/0 asks for a key frame, after frame "));
    EXPECT_EQ(content(path("requests")), "key_frame\n") << "once, until a frame is there";
    end(publisher);
    EXPECT_EQ(publisher.figure("key_requests"), 1);
}

TEST_F(Tool_History, readers_ask_for_a_key_frame_and_a_process_gets_a_signal) {
    Tool_Process encoder = start({}, "trap 'echo asked >\"" + path("asked") +
                                         "\"; exit 0' USR1; while :; do sleep 0.1; done");
    Tool_Process publisher =
        synthetic({"--fps", "20", "--key-interval", "100000", "--on-key-request",
                   "signal:" + std::to_string(encoder.pid()) + ":USR1"});
    std::this_thread::sleep_for(500ms);
    Tool_Process recorder = start_recorder(
        {"-o", path("out"), "--ask-for-key-frame", "--duration", "1", "--from", "live"});
    EXPECT_EQ(encoder.status(), 0);
    EXPECT_EQ(content(path("asked")), "asked\n");
    EXPECT_EQ(recorder.status(), 0);
    end(publisher);
}

}  // namespace
