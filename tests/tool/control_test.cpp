// SPDX-License-Identifier: Apache-2.0
//
// The commands that ask the center, and `watch`.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

#include "apps/tool/json_text.h"
#include "tool/tool_process.h"

namespace {

using zav_shm::tool::parsed_json;
using Words = std::vector<std::string>;

class Tool_Control : public Tool {
protected:
    void SetUp() override {
        Tool::SetUp();
        ASSERT_TRUE(start_center(tool_configuration));
    }
    void TearDown() override {
        unlink(status_file);
        Tool::TearDown();
    }

    // What a center's daemon writes.
    static void write_status(long pid, bool kick) {
        write(status_file, R"({"pid":)" + std::to_string(pid) + R"(,"version":"9.9",)" +
                               R"("kick_idle":)" + (kick ? "true" : "false") +
                               R"(,"configuration":"test.json","channels":[{"name":"CAM_LOOP",)" +
                               R"("channel":0,"stream":0,"frames":77,"consumers":[]}]})" + "\n");
    }

    static constexpr const char* status_file = "/dev/shm/shm/center_status.json";
};

// ---- query ----

TEST_F(Tool_Control, query_shows_what_a_name_has) {
    Tool_Process text = start({"query", "--type", "Distributor", "--name", "CAM_LOOP"});
    EXPECT_EQ(text.output(),
              "Distributor CAM_LOOP\n  channels   2\n  streams    2\n"
              "  page sizes 65536, 16384 bytes\n  segments   /dev/shm/shm\n");
    EXPECT_EQ(text.status(), 0);
    Tool_Process json = start({"query", "--type", "Receiver", "--name", "PLAYER", "--json"});
    const Json::Value reply = parsed_json(json.output());
    EXPECT_EQ(json.status(), 0);
    EXPECT_EQ(reply["name"], "PLAYER");
    EXPECT_EQ(reply["channel"], 2);
    EXPECT_EQ(reply["page_size"][1], 16384);
}

TEST_F(Tool_Control, query_of_an_unknown_name_is_refused_with_the_reason) {
    Tool_Process tool = start({"query", "--type", "Receiver", "--name", "X"});
    EXPECT_EQ(tool.output(), "");
    EXPECT_EQ(tool.status(), refused);
    EXPECT_EQ(tool.errors(), "zav-shm: the center refuses: Can't Find Shm Name X Receiver\n");
}

// ---- pair ----

TEST_F(Tool_Control, pair_moves_a_consumer) {
    Tool_Process text = start({"pair", "--name", "PLAYER", "--pair", "CAM_REC"});
    EXPECT_EQ(text.output(), "PLAYER/0/0 is fed by CAM_REC/0/0\n");
    EXPECT_EQ(text.status(), 0);
    Tool_Process json = start({"pair", "--name", "PLAYER", "--pair", "CAM_LOOP", "--channel", "1",
                               "--stream", "1", "--json"});
    const Json::Value reply = parsed_json(json.output());
    EXPECT_EQ(json.status(), 0);
    EXPECT_EQ(reply["status"], "success");
    EXPECT_EQ(reply["shm_path"], "/shm/CAM_LOOP_1_1");
    EXPECT_EQ(reply["channel"], 1);
}

TEST_F(Tool_Control, pair_moves_every_channel_and_stream_if_asked_to) {
    Tool_Process tool = start({"pair", "--name", "PLAYER", "--pair", "CAM_LOOP", "--all"});
    EXPECT_EQ(tool.output(),
              "PLAYER/0/0 is fed by CAM_LOOP/0/0\nPLAYER/0/1 is fed by CAM_LOOP/0/1\n"
              "PLAYER/1/0 is fed by CAM_LOOP/1/0\nPLAYER/1/1 is fed by CAM_LOOP/1/1\n");
    EXPECT_EQ(tool.status(), 0);
}

TEST_F(Tool_Control, pair_with_an_unknown_name_is_refused_with_the_reason) {
    Tool_Process producer = start({"pair", "--name", "PLAYER", "--pair", "X", "--json"});
    EXPECT_EQ(producer.status(), refused);
    EXPECT_TRUE(producer.says("Can't Find Shm Pair Name X"));
    Tool_Process consumer = start({"pair", "--name", "X", "--pair", "CAM_LOOP", "--all"});
    EXPECT_EQ(consumer.status(), refused);
    EXPECT_TRUE(consumer.says("Can't Find Shm Name X"));
}

// ---- kick ----

TEST_F(Tool_Control, kick_without_a_status_file_says_that_it_was_sent) {
    Tool_Process text = start({"kick", "on"});
    EXPECT_EQ(text.output(), "kick on: sent\n");
    EXPECT_EQ(text.status(), 0);
    EXPECT_NE(printed_within(std::chrono::milliseconds(200)).find("KICK_IDLE execute, 1"),
              std::string::npos);
    Tool_Process json = start({"kick", "off", "--json"});
    const Json::Value result = parsed_json(json.output());
    EXPECT_TRUE(result["sent"].asBool());
    EXPECT_FALSE(result["confirmed"].asBool());
    EXPECT_FALSE(result["kick_idle"].asBool());
    EXPECT_EQ(json.status(), 0);
}

TEST_F(Tool_Control, kick_is_confirmed_by_the_status_file) {
    write_status(getpid(), false);
    Tool_Process tool = start({"kick", "on", "--wait", "10"});
    printed_within(std::chrono::milliseconds(300));
    write_status(getpid(), true);
    EXPECT_EQ(tool.output(), "kick on: confirmed\n");
    EXPECT_EQ(tool.status(), 0);
}

TEST_F(Tool_Control, kick_that_the_status_file_does_not_show_is_an_error) {
    write_status(getpid(), false);
    Tool_Process tool = start({"kick", "on", "--wait", "0.5"});
    EXPECT_EQ(tool.status(), no_center);
    EXPECT_TRUE(tool.says("does not show it within 500 ms"));
}

// ---- status ----

TEST_F(Tool_Control, status_shows_the_file) {
    write_status(getpid(), true);
    Tool_Process text = start({"status"});
    const std::string table = text.output();
    EXPECT_EQ(text.status(), 0) << text.errors();
    EXPECT_NE(table.find("center 9.9, process " + std::to_string(getpid())), std::string::npos);
    EXPECT_NE(table.find("CAM_LOOP/0/0      77"), std::string::npos) << table;
    Tool_Process json = start({"status", "--json"});
    const Json::Value status = parsed_json(json.output());
    EXPECT_EQ(json.status(), 0);
    EXPECT_EQ(status["channels"][0]["frames"], 77);
    EXPECT_TRUE(status["alive"].asBool());
    EXPECT_FALSE(status["stale"].asBool());
    EXPECT_LT(status["age_ms"].asInt(), 3000);
}

TEST_F(Tool_Control, status_tells_when_the_center_is_gone) {
    Child_Process ended({"/bin/true"});
    ASSERT_EQ(ended.wait(), 0);
    write_status(ended.pid(), true);
    Tool_Process tool = start({"status", "--json"});
    EXPECT_FALSE(parsed_json(tool.output())["alive"].asBool());
    EXPECT_EQ(tool.status(), no_center);
    EXPECT_TRUE(tool.says("the center is gone: process " + std::to_string(ended.pid())));
}

TEST_F(Tool_Control, status_tells_when_the_center_hangs) {
    write_status(getpid(), true);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec times[] = {{now.tv_sec - 10, 0}, {now.tv_sec - 10, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, status_file, times, 0), 0);
    Tool_Process tool = start({"status", "--json"});
    EXPECT_TRUE(parsed_json(tool.output())["stale"].asBool());
    EXPECT_EQ(tool.status(), no_center);
    EXPECT_TRUE(tool.says("the center hangs"));
}

TEST_F(Tool_Control, status_without_a_file_and_with_a_damaged_one_says_so) {
    Tool_Process missing = start({"status"});
    EXPECT_EQ(missing.status(), no_center);
    EXPECT_TRUE(missing.says(status_file));
    write(status_file, "{\"pid\":");
    Tool_Process damaged = start({"status"});
    EXPECT_EQ(damaged.status(), 5);
    EXPECT_TRUE(damaged.says("is not the status of a center"));
}

TEST_F(Tool_Control, status_lets_the_center_print_if_asked_to) {
    write_status(getpid(), true);
    Tool_Process tool = start({"status", "--ask-center"});
    EXPECT_EQ(tool.status(), 0);
    EXPECT_NE(printed_within(std::chrono::milliseconds(200)).find("======== Distributor ======="),
              std::string::npos);
}

// ---- watch ----

TEST_F(Tool_Control, watch_writes_a_line_a_second) {
    Tool_Process publisher = start({"publish", "--synthetic", "--name", "CAM_LOOP", "--fps", "50",
                                    "--size", "1000", "--quiet"});
    Tool_Process watcher = start({"watch", "--name", "PLAYER", "--pair", "CAM_LOOP", "--json",
                                  "--count", "3", "--verify-synthetic"});
    Json::Value line;
    for (int i = 0; i < 3; ++i) {
        const auto text = watcher.read_line();
        ASSERT_TRUE(text) << watcher.errors();
        line = parsed_json(*text);
        ASSERT_TRUE(line.isObject()) << *text;
        EXPECT_GE(line["seconds"].asDouble(), 0.9);
    }
    EXPECT_EQ(watcher.output(), "") << "after the last line nothing comes";
    EXPECT_EQ(watcher.status(), 0);
    EXPECT_GT(line["frames"].asInt(), 20);
    EXPECT_GT(line["mbit_per_s"].asDouble(), 0.1);
    EXPECT_GT(line["latency_p99_us"].asDouble(), 0);
    EXPECT_EQ(line["state"], "connected");
    EXPECT_EQ(line["damaged_total"], 0);
    EXPECT_LT(line["key_frame_age_s"].asDouble(), 1.5);
    publisher.signal(SIGTERM);
    EXPECT_EQ(publisher.status(), 0);
}

TEST_F(Tool_Control, watch_waits_for_a_producer_and_ends_at_a_signal) {
    Tool_Process watcher = start({"watch", "--name", "PLAYER", "--pair", "CAM_LOOP"});
    const auto first = watcher.read_line();
    const auto second = watcher.read_line();
    ASSERT_TRUE(first && second);
    EXPECT_NE(second->find("   0.0 frames/s"), std::string::npos) << *second;
    EXPECT_NE(second->find("waiting"), std::string::npos) << *second;
    watcher.signal(SIGINT);
    EXPECT_EQ(watcher.status(), 0);
}

}  // namespace
