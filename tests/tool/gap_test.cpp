// SPDX-License-Identifier: Apache-2.0
//
// What `record` writes around a gap: after a loss, at another producer, after a stop of its output,
// and when no key frame comes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "support/threads.h"
#include "tool/crafted_streams.h"
#include "tool/tool_frames.h"

namespace {

using namespace std::chrono_literals;
using namespace crafted;

class Tool_Gaps : public Tool_Frames {
protected:
    Tool_Process synthetic(const std::vector<std::string>& more) {
        std::vector<std::string> words{"--synthetic", "--size", "30000", "--quiet"};
        words.insert(words.end(), more.begin(), more.end());
        return start_publisher(words);
    }

    std::vector<Index_Line> written() { return index_lines(path("index")); }

    // A key frame stands behind each gap.
    void expect_entry_behind_each_gap() {
        const auto lines = written();
        for (std::size_t i = 1; i < lines.size(); ++i) {
            if (lines[i].sequence != lines[i - 1].sequence + 1) {
                EXPECT_NE(lines[i].entry, 0)
                    << "frame " << lines[i].sequence << " behind " << lines[i - 1].sequence;
            }
        }
    }

    bool index_has(std::size_t lines) {
        return becomes_true([&] { return written().size() >= lines; });
    }
};

// The history holds some five frames of these: a recorder that stands still for longer loses some.
TEST_F(Tool_Gaps, recording_goes_on_at_a_key_frame_after_a_loss) {
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--strict"});
    Tool_Process publisher = synthetic({"--fps", "50", "--key-interval", "20"});
    ASSERT_TRUE(index_has(5));
    recorder.signal(SIGSTOP);
    std::this_thread::sleep_for(1000ms);
    recorder.signal(SIGCONT);
    const std::size_t before = written().size();
    ASSERT_TRUE(index_has(before + 60));
    recorder.signal(SIGTERM);
    EXPECT_EQ(recorder.status(), incomplete);
    expect_entry_behind_each_gap();
    EXPECT_GT(recorder.figure("lost"), 0);
    EXPECT_GT(recorder.figure("gaps"), 0);
    EXPECT_TRUE(recorder.says("RECODER/0/0: a gap before frame "));
    end(publisher);
}

TEST_F(Tool_Gaps, recording_keeps_all_if_asked_to) {
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--keep-all"});
    Tool_Process publisher = synthetic({"--fps", "50", "--key-interval", "1000"});
    ASSERT_TRUE(index_has(5));
    recorder.signal(SIGSTOP);
    std::this_thread::sleep_for(1000ms);
    recorder.signal(SIGCONT);
    const std::size_t before = written().size();
    ASSERT_TRUE(index_has(before + 20));
    end(recorder);
    EXPECT_GT(recorder.figure("gaps"), 0);
    EXPECT_EQ(recorder.figure("skipped"), 0);
    end(publisher);
}

TEST_F(Tool_Gaps, recording_begins_anew_at_a_key_frame_of_another_producer) {
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--strict"});
    Tool_Process first = synthetic({"--fps", "20", "--key-interval", "20"});
    ASSERT_TRUE(index_has(5));
    end(first);
    // Its second part begins in mid-GOP, as that of a producer does which others consumed before.
    Bytes stream = sps_frames + pps;
    for (int i = 0; i < 60; ++i) {
        stream = stream + (i == 30 ? idr : p_slice);
    }
    write(path("in"), text_of(stream));
    Tool_Process second = start_publisher({path("in"), "--fps", "20"});
    EXPECT_EQ(second.status(), 0);
    recorder.signal(SIGTERM);
    EXPECT_EQ(recorder.status(), incomplete) << "the former one had not ended its stream";
    expect_entry_behind_each_gap();
    const auto lines = written();
    const auto other = std::find_if(lines.begin() + 1, lines.end(),
                                    [](const Index_Line& line) { return line.sequence == 31; });
    ASSERT_NE(other, lines.end());
    EXPECT_EQ(other->entry, 1);
    EXPECT_TRUE(recorder.says("frame 31 is the first one of another or restarted producer"));
    EXPECT_GE(recorder.figure("skipped"), 25);
}

TEST_F(Tool_Gaps, streams_that_follow_each_other_in_order_are_no_gap) {
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--strict"});
    for (int i = 1; i <= 2; ++i) {
        Tool_Process publisher = start_publisher({stream("plain.h264"), "--fps", "10"});
        EXPECT_EQ(publisher.status(), 0);
        ASSERT_TRUE(index_has(static_cast<std::size_t>(i) * 20));
    }
    end(recorder);
    EXPECT_EQ(recorder.figure("gaps"), 0);
    EXPECT_TRUE(content(path("out")) ==
                content(stream("plain.h264")) + content(stream("plain.h264")));
}

// Intra refresh: an IDR picture at the beginning, recovery points from then on.
Bytes refreshing_stream(int pictures) {
    const Bytes picture = p_slice + Bytes(4000, std::byte{0x55});
    Bytes stream = sps_frames + pps + idr;
    for (int i = 1; i < pictures; ++i) {
        stream = stream + (i % 10 == 0 ? recovery : Bytes()) + picture;
    }
    return stream;
}

TEST_F(Tool_Gaps, recording_goes_on_at_a_recovery_point_after_a_stop_of_the_output) {
    write(path("in"), text_of(refreshing_stream(200)));
    const std::string fifo = path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int pipe = open(fifo.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ASSERT_GE(pipe, 0);
    const auto reads_until_written = [this, pipe](std::size_t frames) {
        std::vector<char> block(1 << 16);
        return becomes_true([&] {
            return read(pipe, block.data(), block.size()) >= -1 && written().size() >= frames;
        });
    };
    Tool_Process recorder =
        start_recorder({"-o", "-", "--index", path("index")}, "exec \"$@\" >'" + fifo + "'");
    Tool_Process publisher = start_publisher({path("in"), "--fps", "100"});
    EXPECT_TRUE(reads_until_written(5));
    std::this_thread::sleep_for(1200ms);  // the pipe holds 16 frames, and the history some 30
    EXPECT_TRUE(reads_until_written(110)) << recorder.errors();
    expect_entry_behind_each_gap();
    close(pipe);
    end(publisher);
    recorder.signal(SIGTERM);
    recorder.status();
    EXPECT_GT(recorder.figure("gaps"), 0);
    EXPECT_GT(recorder.figure("recovery_points"), 0);
}

TEST_F(Tool_Gaps, recording_that_comes_late_begins_at_a_recovery_point) {
    write(path("in"), text_of(refreshing_stream(400)));
    Tool_Process publisher = start_publisher({path("in"), "--fps", "50"});
    std::this_thread::sleep_for(500ms);
    Tool_Process recorder =
        start_recorder({"-o", path("out"), "--index", path("index"), "--frames", "15"});
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    const auto lines = written();
    ASSERT_EQ(lines.size(), 15U);
    EXPECT_EQ(lines[0].entry, 2);
    EXPECT_EQ(recorder.figure("key_frames"), 0);
    EXPECT_GE(recorder.figure("recovery_points"), 1);
    end(publisher);
}

TEST_F(Tool_Gaps, recording_says_when_no_key_frame_comes_and_what_to_do) {
    Bytes stream;
    for (int i = 0; i < 50; ++i) {
        stream = stream + p_slice;
    }
    write(path("in"), text_of(stream));
    Tool_Process recorder = start_recorder({"-o", path("out")});
    Tool_Process publisher =
        start_publisher({path("in"), "--codec", "h264", "--loop", "--fps", "50"});
    EXPECT_TRUE(recorder.says("for 5 s neither a key frame nor a recovery point has come"));
    EXPECT_TRUE(recorder.says("record with --any-frame"));
    end(recorder);
    EXPECT_TRUE(recorder.says("nothing was written: of the "));
    EXPECT_EQ(recorder.figure("frames"), 0);
    end(publisher);
}

}  // namespace
