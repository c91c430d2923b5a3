// SPDX-License-Identifier: Apache-2.0
//
// Traffic through a real center into traces, out of them, and into others.
#include <sys/mount.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "apps/tool/json_text.h"
#include "support/threads.h"
#include "tool/tool_frames.h"
#include "tool/trace_maker.h"

namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

class Tool_Trace : public Tool_Frames {
protected:
    // Long enough that a reader on a busy machine is not overtaken.
    static constexpr const char* history = "10000000";

    /// A capture that waits for its streams: their first frames are in the trace.
    Tool_Process start_capture(const std::string& producer, const std::string& file,
                               const Words& more = {}, const Words& streams = {"0", "1"}) {
        Words words{"capture", "-o", path(file)};
        for (const std::string& stream : streams) {
            words.insert(words.end(), {"--tap", producer + "/0/" + stream});
        }
        words.insert(words.end(), more.begin(), more.end());
        Tool_Process capture = start(words);
        for (const std::string& stream : streams) {
            EXPECT_TRUE(capture.says("tap of " + producer + "/0/" + stream + ": "));
        }
        return capture;
    }

    Tool_Process replay(const std::string& file, const Words& more) {
        Words words{"replay", path(file), "--name", "CAM_REC", "--history", history};
        words.insert(words.end(), more.begin(), more.end());
        return start(words);
    }

    // What `trace --json` says.
    Json::Value facts(const std::string& file, int status = 0) {
        Tool_Process tool = start({"trace", path(file), "--json"});
        const Json::Value facts = zav_shm::tool::parsed_json(tool.output());
        EXPECT_EQ(tool.status(), status) << tool.errors();
        return facts;
    }

    void expect_equal(const std::string& one, const std::string& other) {
        Tool_Process tool = start({"trace", path(one), "--compare", path(other)});
        EXPECT_EQ(tool.output().substr(0, 6), "equal:");
        EXPECT_EQ(tool.status(), 0) << tool.errors();
    }

    void capture_synthetic(const std::string& file, const Words& publish) {
        Tool_Process capture = start_capture("CAM_LOOP", file, {}, {"0"});
        Words words{"--synthetic", "--quiet", "--history", history};
        words.insert(words.end(), publish.begin(), publish.end());
        Tool_Process publisher = start_publisher(words);
        EXPECT_EQ(publisher.status(), 0) << publisher.errors();
        end(capture);
    }
};

// ---- there and back ----

TEST_F(Tool_Trace, of_real_video_replayed_and_captured_again_is_equal) {
    Tool_Process capture = start_capture("CAM_LOOP", "first");
    Tool_Process main =
        start_publisher({stream("plain.h264"), "--fps", "20", "--history", history});
    Tool_Process sub = start_publisher({stream("slices_aud.h264"), "--fps", "10", "--stream", "1"});
    EXPECT_EQ(main.status(), 0) << main.errors();
    EXPECT_EQ(sub.status(), 0) << sub.errors();
    end(capture);
    EXPECT_EQ(capture.figure("frames"), 40);
    EXPECT_EQ(capture.figure("lost"), 0);

    Tool_Process again = start_capture("CAM_REC", "second");
    Tool_Process recorder =
        start({"record", "--tap", "--pair", "CAM_REC", "-o", path("out"), "--frames", "20"});
    EXPECT_TRUE(recorder.says("tap of CAM_REC/0/0: "));
    Tool_Process replayed = replay("first", {});
    EXPECT_EQ(replayed.status(), 0) << replayed.errors();
    EXPECT_EQ(replayed.figure("published"), 40);
    EXPECT_EQ(recorder.status(), 0) << recorder.errors();
    end(again);
    EXPECT_TRUE(content(path("out")) == content(stream("plain.h264")));
    expect_equal("first", "second");
    EXPECT_FALSE(content(path("first")) == content(path("second"))) << "other epochs and times";
    const Json::Value now = facts("second");
    EXPECT_EQ(now["streams"][0]["stream"].asString(), "CAM_REC/0/0");
    EXPECT_EQ(now["streams"][0]["codec"].asString(), "H264");
    EXPECT_EQ(now["streams"][0]["width"].asInt(), 96);
    EXPECT_TRUE(now["closed"].asBool());
    EXPECT_GE(now["seconds"].asDouble(), 1.8) << "19 intervals of 100 ms";
}

// Frames that are too large for their stream have numbers, and readers miss them.
TEST_F(Tool_Trace, has_gaps_and_restarts_of_its_producer_and_replays_them) {
    Tool_Process capture = start_capture("CAM_LOOP", "first", {}, {"1"});
    for (int run = 0; run < 2; ++run) {
        Tool_Process publisher = start_publisher({sample("main.h264"), "--stream", "1", "--fps",
                                                  "100", "--count", "60", "--history", history});
        EXPECT_EQ(publisher.status(), incomplete) << publisher.errors();
    }
    end(capture);
    const Json::Value before = facts("first")["streams"][0];
    EXPECT_GT(before["missing"].asInt(), 0);
    EXPECT_EQ(before["producers"].asInt(), 2);
    EXPECT_GT(before["left_out"].asInt(), 0);

    Tool_Process again = start_capture("CAM_REC", "second", {}, {"1"});
    Tool_Process replayed = replay("first", {});
    EXPECT_EQ(replayed.status(), 0) << replayed.errors();
    EXPECT_EQ(replayed.figure("restarts"), 1);
    end(again);
    expect_equal("first", "second");
    EXPECT_EQ(facts("second")["streams"][0]["missing"], before["missing"]);
}

TEST_F(Tool_Trace, is_captured_by_a_consumer_with_a_name_too) {
    Tool_Process capture = start({"capture", "--name", "RECODER", "--pair", "CAM_LOOP", "-o",
                                  path("first"), "--frames", "20"});
    EXPECT_TRUE(capture.says("RECODER/0/0 fed by CAM_LOOP/0/0: "));
    Tool_Process publisher =
        start_publisher({stream("plain.h264"), "--fps", "20", "--history", history});
    EXPECT_EQ(publisher.status(), 0) << publisher.errors();
    EXPECT_EQ(capture.status(), 0) << capture.errors();
    EXPECT_EQ(facts("first")["frames"].asInt(), 20);
}

TEST_F(Tool_Trace, goes_to_standard_output) {
    Tool_Process capture =
        start({"capture", "--tap", "CAM_LOOP", "-o", "-", "--frames", "20", "--quiet"},
              "\"$@\" | cat >'" + path("first") + "'");
    EXPECT_TRUE(capture.says("tap of CAM_LOOP/0/0: "));
    Tool_Process publisher =
        start_publisher({stream("plain.h264"), "--fps", "20", "--history", history});
    EXPECT_EQ(publisher.status(), 0);
    EXPECT_EQ(capture.status(), 0);
    EXPECT_TRUE(facts("first")["closed"].asBool());
}

// What a capture by name gets of a producer of the fixed interface.
TEST_F(Tool_Trace, without_frame_headers_is_replayed_with_some) {
    Trace_Maker maker({{"CAM_LOOP", 0, 0}});
    maker.add(0, 1000, 0, 300, true);
    maker.add(0, 1040, 0, 400, true);
    maker.finish();
    write(path("first"), text_of(maker.bytes));
    Tool_Process again = start_capture("CAM_REC", "second", {}, {"0"});
    Tool_Process replayed = replay("first", {});
    EXPECT_EQ(replayed.status(), 0) << replayed.errors();
    EXPECT_EQ(replayed.figure("foreign"), 2);
    end(again);
    expect_equal("first", "second");
    const Json::Value now = facts("second")["streams"][0];
    EXPECT_EQ(now["foreign"].asInt(), 0);
    EXPECT_EQ(now["last"].asInt(), 2);
}

// Whatever reads it meanwhile; the clock that is counted by is the other device's.
TEST_F(Tool_Trace, of_several_producers_is_replayed_in_the_order_of_its_times) {
    Trace_Maker maker({{"CAM_LOOP", 0, 1}, {"CAM_REC", 0, 0}});
    for (int i = 0; i < 10; ++i) {
        maker.add(1, 5000 + 20 * i);  // read before the other stream, and published later
    }
    for (int i = 0; i < 10; ++i) {
        maker.add(0, 1000 + 20 * i);
    }
    write(path("first"), text_of(maker.bytes));
    Tool_Process both = start({"replay", path("first"), "--name", "CAM_REC", "--speed", "0"});
    EXPECT_EQ(both.status(), 0) << "their streams differ, so that one producer can have both";
    Tool_Process capture = start({"capture", "-o", path("second"), "--tap", "CAM_REC/0/1", "--tap",
                                  "CAM_LOOP/0/0", "--frames", "20"});
    EXPECT_TRUE(capture.says("tap of CAM_LOOP/0/0: "));
    const Stopwatch watch;
    Tool_Process replayed = start({"replay", path("first"), "--name", "CAM_LOOP=CAM_REC", "--name",
                                   "CAM_REC=CAM_LOOP", "--speed", "10"});
    EXPECT_EQ(replayed.status(), 0) << replayed.errors();
    EXPECT_TRUE(replayed.says("\" was not closed: "));
    EXPECT_GE(watch.elapsed(), 400ms);
    EXPECT_EQ(capture.status(), 0);
    Tool_Process list = start({"trace", path("second"), "--list"});
    const std::string lines = list.output();
    EXPECT_EQ(list.status(), 0);
    EXPECT_LT(lines.rfind("frame  CAM_REC/0/1"), lines.find("frame  CAM_LOOP/0/0")) << lines;
}

// ---- times ----

TEST_F(Tool_Trace, is_replayed_at_its_pace_or_another) {
    capture_synthetic("first", {"--fps", "20", "--count", "31", "--size", "100"});
    for (const auto& [speed, least, greatest] :
         {std::tuple{"1", 1400ms, 60s}, {"2", 700ms, 60s}, {"0", 0ms, 60s}}) {
        const Stopwatch watch;
        Tool_Process replayed = replay("first", {"--speed", speed});
        EXPECT_EQ(replayed.status(), 0) << replayed.errors();
        EXPECT_EQ(replayed.figure("published"), 31);
        EXPECT_GE(watch.elapsed(), least) << speed;
        EXPECT_LT(watch.elapsed(), greatest);
    }
}

TEST_F(Tool_Trace, is_replayed_as_fast_as_a_reader_takes_it) {
    capture_synthetic("first", {"--fps", "200", "--count", "400", "--size", "20000"});
    Tool_Process again = start_capture("CAM_REC", "second", {}, {"0"});
    Tool_Process replayed = replay("first", {"--speed", "0", "--pace-limit", "60"});
    EXPECT_EQ(replayed.status(), 0) << replayed.errors();
    end(again);
    EXPECT_EQ(again.figure("lost"), 0);
    EXPECT_EQ(again.figure("frames"), 400);
    expect_equal("first", "second");
}

TEST_F(Tool_Trace, is_replayed_from_a_moment_on_with_the_key_frame_before) {
    capture_synthetic("first",
                      {"--fps", "50", "--count", "100", "--size", "100", "--key-interval", "10"});
    Tool_Process again = start_capture("CAM_REC", "second", {}, {"0"});
    Tool_Process replayed = replay("first", {"--from", "1.45", "--speed", "0"});
    EXPECT_EQ(replayed.status(), 0) << replayed.errors();
    EXPECT_TRUE(replayed.says("\": beginning at "));
    end(again);
    const Json::Value now = facts("second")["streams"][0];
    EXPECT_EQ(now["first"].asInt() % 10, 1) << "a key frame";
    EXPECT_GT(now["first"].asInt(), 1);
    EXPECT_LE(now["first"].asInt(), 71) << "not later than at 1.4 s";
    EXPECT_EQ(now["last"].asInt(), 100);
}

TEST_F(Tool_Trace, is_replayed_again_and_again) {
    capture_synthetic("first", {"--fps", "100", "--count", "10", "--size", "100"});
    Tool_Process again = start_capture("CAM_REC", "second", {}, {"0"});
    Tool_Process replayed = replay("first", {"--loop", "--count", "35"});
    EXPECT_EQ(replayed.status(), 0) << replayed.errors();
    EXPECT_EQ(replayed.figure("laps"), 3);
    end(again);
    const Json::Value now = facts("second")["streams"][0];
    EXPECT_EQ(now["frames"].asInt(), 35);
    EXPECT_EQ(now["missing"].asInt(), 0);
    EXPECT_EQ(now["producers"].asInt(), 1);
    EXPECT_GE(now["seconds"].asDouble(), 0.3);
}

// ---- what goes wrong ----

TEST_F(Tool_Trace, of_a_killed_capture_is_usable_to_its_last_record) {
    leaves_cards = true;
    Tool_Process publisher = start_publisher(
        {"--synthetic", "--quiet", "--fps", "50", "--size", "30000", "--history", history});
    Tool_Process capture = start_capture("CAM_LOOP", "first", {}, {"0"});
    const std::string file = path("first");
    ASSERT_TRUE(becomes_true([&] { return std::filesystem::file_size(file) > 1'000'000; }));
    capture.signal(SIGKILL);
    EXPECT_NE(capture.status(), 0);
    end(publisher);
    Tool_Process tool = start({"trace", file, "--json"});
    const Json::Value there = zav_shm::tool::parsed_json(tool.output());
    EXPECT_LE(tool.status(), incomplete) << "0, or 1 if it is cut within a record";
    EXPECT_FALSE(there["closed"].asBool());
    EXPECT_TRUE(there["damage"].isNull() || there["damage"]["cut"].asBool());
    EXPECT_GT(there["frames"].asInt(), 30);
    EXPECT_EQ(there["streams"][0]["missing"].asInt(), 0);
    Tool_Process again = start_capture("CAM_REC", "second", {}, {"0"});
    Tool_Process replayed = replay("first", {"--speed", "0", "--pace-limit", "60"});
    EXPECT_LE(replayed.status(), incomplete) << replayed.errors();
    EXPECT_EQ(replayed.figure("published"), there["frames"].asInt());
    EXPECT_TRUE(replayed.says("was not closed") || replayed.says("is cut at byte"));
    end(again);
    EXPECT_EQ(facts("second")["frames"], there["frames"]);
}

TEST_F(Tool_Trace, that_is_damaged_is_replayed_up_to_the_damage_which_is_named) {
    capture_synthetic("first", {"--fps", "100", "--count", "20", "--size", "1000"});
    // Header, stream record, and behind them records of 40, 128 and 1000 bytes.
    const std::size_t first = 64 + 40 + 8 + std::string("CAM_LOOP").size();
    const std::size_t tenth = first + 9 * std::size_t{1168};
    std::string trace = content(path("first"));
    trace[tenth + 500] = static_cast<char>(trace[tenth + 500] ^ 1);
    write(path("damaged"), trace);
    Tool_Process replayed = replay("damaged", {"--speed", "0"});
    EXPECT_EQ(replayed.status(), incomplete);
    EXPECT_EQ(replayed.figure("published"), 9);
    const std::string place = "\" is damaged at byte " + std::to_string(tenth) +
                              ": the record (frame) is damaged: the checksum of its body does not "
                              "fit";
    EXPECT_TRUE(replayed.says(place)) << replayed.errors();
    Tool_Process tool = start({"trace", path("damaged")});
    EXPECT_EQ(tool.status(), incomplete);
    EXPECT_TRUE(tool.says(place));
    EXPECT_EQ(facts("damaged", incomplete)["damage"]["offset"].asUInt64(), tenth);

    write(path("cut"), trace.substr(0, first + 2000));
    Tool_Process cut = replay("cut", {"--speed", "0"});
    EXPECT_EQ(cut.status(), incomplete);
    EXPECT_EQ(cut.figure("published"), 1);
    EXPECT_TRUE(cut.says("\" is cut at byte " + std::to_string(first + 1168)));

    trace[8] = 7;
    write(path("other"), trace);
    Tool_Process other = replay("other", {});
    EXPECT_EQ(other.status(), input_output);
    EXPECT_TRUE(other.says("it is a trace of version 7; this program reads 1"));
    Tool_Process none = start({"trace", sample("sub.h264")});
    EXPECT_EQ(none.status(), input_output);
    EXPECT_TRUE(none.says("it is no trace"));
}

TEST_F(Tool_Trace, that_differs_is_told_with_the_first_difference) {
    capture_synthetic("first", {"--fps", "100", "--count", "5", "--size", "1000"});
    capture_synthetic("second", {"--fps", "100", "--count", "6", "--size", "1000"});
    Tool_Process tool = start({"trace", path("first"), "--compare", path("second")});
    EXPECT_EQ(tool.output().rfind("different: CAM_LOOP/0/0, frame 5", 0), 0U)
        << "of which one says that the stream ends";
    EXPECT_EQ(tool.status(), incomplete);
}

TEST_F(Tool_Trace, names_that_do_not_fit_are_refused) {
    capture_synthetic("first", {"--fps", "100", "--count", "2", "--size", "10"});
    Tool_Process nobody = start({"replay", path("first"), "--name", "CAM_X=CAM_REC"});
    EXPECT_EQ(nobody.status(), usage);
    EXPECT_TRUE(nobody.says("is of 'CAM_X'; the first one is CAM_LOOP/0/0"));
    Tool_Process unknown = start({"replay", path("first"), "--name", "UNKNOWN"});
    EXPECT_EQ(unknown.status(), refused);
}

// ---- a full medium ----

class Tool_Trace_Full : public Tool_Trace {
protected:
    void SetUp() override {
        Tool_Trace::SetUp();
        ASSERT_EQ(mkdir(path("medium").c_str(), 0700), 0);
        ASSERT_EQ(mount("tmpfs", path("medium").c_str(), "tmpfs", 0, "size=1536k"), 0);
    }
    void TearDown() override {
        EXPECT_EQ(umount(path("medium").c_str()), 0);
        Tool_Trace::TearDown();
    }
};

TEST_F(Tool_Trace_Full, ends_the_capture_with_a_trace_of_whole_records) {
    Tool_Process capture = start_capture("CAM_LOOP", "medium/first", {}, {"0"});
    Tool_Process publisher =
        start_publisher({"--synthetic", "--quiet", "--fps", "50", "--size", "60000"});
    EXPECT_EQ(capture.status(), input_output);
    EXPECT_TRUE(capture.says("No space left on device; up to there it is a trace"));
    end(publisher);
    const Json::Value there = facts("medium/first");
    EXPECT_FALSE(there["closed"].asBool());
    EXPECT_TRUE(there["damage"].isNull());
    EXPECT_EQ(there["frames"].asInt(), capture.figure("frames"));
    EXPECT_EQ(there["file_bytes"].asInt(), capture.figure("file_bytes"));
    EXPECT_GT(there["frames"].asInt(), 15);
}

}  // namespace
