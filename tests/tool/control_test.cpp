// SPDX-License-Identifier: Apache-2.0
//
// The commands that ask the center, and `watch`.
#include <fcntl.h>
#include <sys/mount.h>
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

    // The same ten seconds ago.
    static void write_old_status() {
        write_status(getpid(), true);
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        const timespec times[] = {{now.tv_sec - 10, 0}, {now.tv_sec - 10, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, status_file, times, 0), 0);
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
    EXPECT_TRUE(producer.says("Can't Find Shm Name X Distributor"));
    Tool_Process consumer = start({"pair", "--name", "X", "--pair", "CAM_LOOP", "--all"});
    EXPECT_EQ(consumer.status(), refused);
    EXPECT_TRUE(consumer.says("Can't Find Shm Name X"));
}

// The center itself would say "success", and interrupt the consumer.
TEST_F(Tool_Control,
       pair_with_a_channel_or_stream_that_is_not_there_is_refused_and_disturbs_nobody) {
    Tool_Process watcher = start(
        {"watch", "--name", "PLAYER", "--pair", "CAM_LOOP", "--channel", "1", "--json", "--quiet"});
    ASSERT_TRUE(watcher.read_line());
    printed_within(std::chrono::milliseconds(100));
    for (const auto& [words, complaint] :
         {std::pair{
              Words{"CAM_LOOP", "--channel", "4095"},
              "there is no PLAYER/4095/0: in the center's configuration PLAYER has 2 channels "
              "(0 to 1) and 2 streams (0 to 1)"},
          std::pair{Words{"CAM_LOOP", "--stream", "2"}, "there is no PLAYER/0/2"},
          std::pair{Words{"CAM_REC", "--channel", "1"},
                    "there is no CAM_REC/1/0: in the center's configuration CAM_REC has 1 channel "
                    "(0) and 2 streams (0 to 1)"}}) {
        Words all{"pair", "--name", "PLAYER", "--pair"};
        all.insert(all.end(), words.begin(), words.end());
        Tool_Process tool = start(all);
        EXPECT_EQ(tool.status(), refused);
        EXPECT_TRUE(tool.says(complaint));
        EXPECT_EQ(tool.output(), "");
    }
    EXPECT_EQ(printed_within(std::chrono::milliseconds(200)).find("remove_distributor"),
              std::string::npos);
    watcher.signal(SIGTERM);
    EXPECT_EQ(watcher.status(), 0);
}

TEST_F(Tool_Control, pair_with_a_producer_of_fewer_channels_moves_those_that_both_have) {
    Tool_Process tool = start({"pair", "--name", "PLAYER", "--pair", "CAM_REC", "--all"});
    EXPECT_EQ(tool.output(),
              "PLAYER/0/0 is fed by CAM_REC/0/0\nPLAYER/0/1 is fed by CAM_REC/0/1\n");
    EXPECT_EQ(tool.status(), 0);
    EXPECT_TRUE(
        tool.says("2 of 4 channel ends of PLAYER stay as they are: CAM_REC has 1 channel (0) and"));
}

class Tool_Names : public Tool {
protected:
    // A producer called NONE, by which consumers are freed, and one without streams.
    void SetUp() override {
        Tool::SetUp();
        ASSERT_TRUE(start_center(R"({
            "Stream": [{"index": 0, "page_size": 4096}],
            "Distributor": [{"name": "CAM_LOOP", "channel": 2, "stream": [0]},
                            {"name": "NONE", "channel": 1, "stream": [0]},
                            {"name": "SILENT", "channel": 3, "stream": []}],
            "Receiver": [{"name": "PLAYER", "channel": 2, "stream": [0]}]
        })"));
    }
};

TEST_F(Tool_Names, pair_frees_a_consumer_on_every_channel_where_a_producer_is_called_so) {
    Tool_Process one = start({"pair", "--name", "PLAYER", "--pair", "NONE", "--channel", "1"});
    EXPECT_EQ(one.output(), "PLAYER/1/0 is fed by nobody\n");
    EXPECT_EQ(one.status(), 0);
    Tool_Process all = start({"pair", "--name", "PLAYER", "--pair", "NONE", "--all"});
    EXPECT_EQ(all.output(), "PLAYER/0/0 is fed by nobody\nPLAYER/1/0 is fed by nobody\n");
    EXPECT_EQ(all.status(), 0);
}

// A name that would clear the screen and write a line of its own.
TEST_F(Tool_Names, are_printed_so_that_they_steer_no_terminal) {
    ASSERT_TRUE(start_center(R"({
        "Stream": [{"index": 0, "page_size": 4096}],
        "Distributor": [{"name": "CAM\u001b[2J\nX", "channel": 1, "stream": [0]}],
        "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0]}]
    })"));
    const std::string name = "CAM\x1B[2J\nX";
    for (const Words& words : {Words{"query", "--type", "Distributor", "--name", name},
                               Words{"pair", "--name", "PLAYER", "--pair", name},
                               Words{"publish", "--synthetic", "--name", name, "--count", "1"},
                               Words{"query", "--type", "Receiver", "--name", name}}) {
        Tool_Process tool = start(words, "exec \"$@\" --quiet");
        const std::string output = tool.output();
        tool.status();
        const std::string all = output + tool.errors();
        EXPECT_EQ(all.find('\x1B'), std::string::npos) << all;
        EXPECT_NE(all.find("CAM\\x1b[2J\\x0aX"), std::string::npos) << all;
    }
}

TEST_F(Tool_Names, that_list_no_stream_are_refused_with_the_reason) {
    for (const Words& words :
         {Words{"publish", "--synthetic", "--name", "SILENT"},
          Words{"pair", "--name", "PLAYER", "--pair", "SILENT", "--all"},
          Words{"watch", "--name", "PLAYER", "--pair", "SILENT"},
          Words{"record", "--name", "PLAYER", "--pair", "SILENT", "-o", path("out")}}) {
        Tool_Process tool = start(words);
        EXPECT_EQ(tool.status(), refused) << words[0];
        EXPECT_TRUE(
            tool.says("SILENT has 3 channels (0 to 2) and no stream; the built-in defaults"));
    }
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
    center->kill();
    Child_Process ended({"/bin/true"});
    ASSERT_EQ(ended.wait(), 0);
    write_status(ended.pid(), true);
    Tool_Process tool = start({"status", "--json"});
    EXPECT_FALSE(parsed_json(tool.output())["alive"].asBool());
    EXPECT_EQ(tool.status(), no_center);
    EXPECT_TRUE(tool.says("the center is gone: process " + std::to_string(ended.pid())));
}

TEST_F(Tool_Control, status_tells_when_the_center_hangs) {
    write_old_status();
    center->signal(SIGSTOP);
    Tool_Process tool = start({"status", "--json"});
    EXPECT_TRUE(parsed_json(tool.output())["stale"].asBool());
    EXPECT_EQ(tool.status(), no_center);
    EXPECT_TRUE(tool.says("the center hangs: it does not answer"));
    center->signal(SIGCONT);
}

// The status cannot be replaced then, and the center is well.
TEST_F(Tool_Control, status_on_a_full_file_system_does_not_say_that_the_center_hangs) {
    const auto limit_to = [](const char* size) {
        return mount("tmpfs", "/dev/shm", "tmpfs", MS_REMOUNT, size) == 0;
    };
    ASSERT_TRUE(limit_to("size=8m"));
    write_old_status();
    Tool_Process fill = start({}, "cat /dev/zero > /dev/shm/filler");
    EXPECT_NE(fill.status(), 0);
    Tool_Process tool = start({"status"});
    EXPECT_EQ(tool.status(), input_output);
    EXPECT_TRUE(tool.says("the center answers, but what it tells is old"));
    EXPECT_TRUE(tool.says("the file system has 0 of 8388608 bytes"));
    unlink("/dev/shm/filler");
    EXPECT_TRUE(limit_to("size=50%"));
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

// ---- names ----

TEST_F(Tool_Control, names_lists_what_is_configured_and_who_is_registered) {
    write(status_file, R"({"pid":)" + std::to_string(getpid()) + R"(, "names": {
        "distributors": [
            {"name": "CAM_LOOP", "channels": 2, "streams": [
                {"stream": 0, "index": 0, "page_size": 65536},
                {"stream": 1, "index": 4, "page_size": 16384}]},
            {"name": "SILENT", "channels": 1, "streams": []}],
        "receivers": [
            {"name": "PLAYER", "channels": 2, "streams": [
                {"stream": 0, "index": 0, "page_size": 65536}]},
            {"name": "RECODER", "channels": 1, "streams": []}]},
        "channels": [
            {"name": "CAM_LOOP", "channel": 0, "stream": 0, "consumers": [
                {"name": "PLAYER", "channel": 0, "stream": 0}]},
            {"name": "CAM_LOOP", "channel": 1, "stream": 0, "consumers": [
                {"name": "PLAYER", "channel": 1, "stream": 0}]}]})");
    Tool_Process text = start({"names"});
    EXPECT_EQ(text.output(),
              "producer  channels  streams  page sizes    feeds\n"
              "CAM_LOOP         2        2  65536, 16384  PLAYER/0/0, PLAYER/1/0\n"
              "SILENT           1        0  -             -\n"
              "\n"
              "consumer  channels  streams  page sizes  fed by\n"
              "PLAYER           2        1  65536       CAM_LOOP/0/0, CAM_LOOP/1/0\n"
              "RECODER          1        0  -           -\n");
    EXPECT_EQ(text.status(), 0) << text.errors();
    Tool_Process json = start({"names", "--json"});
    const Json::Value names = parsed_json(json.output());
    EXPECT_EQ(json.status(), 0);
    EXPECT_EQ(names["producers"][0]["streams"][1]["index"], 4);
    EXPECT_EQ(names["producers"][0]["feeds"][1]["name"], "PLAYER");
    EXPECT_EQ(names["consumers"][0]["fed"][1]["producer"], "CAM_LOOP");
    EXPECT_EQ(names["consumers"][1]["fed"].size(), 0U);
}

TEST_F(Tool_Control, names_of_a_center_that_does_not_list_them_says_so) {
    write_status(getpid(), true);
    Tool_Process tool = start({"names"});
    EXPECT_EQ(tool.output(), "");
    EXPECT_EQ(tool.status(), input_output);
    EXPECT_TRUE(tool.says("lists no names: it is of zav-shm-centerd 9.9, which is older"));
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
