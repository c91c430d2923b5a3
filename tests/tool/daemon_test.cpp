// SPDX-License-Identifier: Apache-2.0
//
// The tool beside the center's daemon: what it publishes of itself, and its death.
#include <csignal>

#include "apps/tool/json_text.h"
#include "support/threads.h"
#include "tool/tool_process.h"

namespace {

using zav_shm::tool::parsed_json;

class Tool_Daemon : public Tool {
protected:
    void SetUp() override {
        Tool::SetUp();
        write(path("zav_shm.json"), tool_configuration);
        ASSERT_TRUE(start_daemon());
        announce_leftovers_of(*parsed(tool_configuration));
    }
    void TearDown() override {
        center->signal(SIGTERM);
        EXPECT_EQ(center->wait(std::chrono::seconds(10)), 0);
        Tool::TearDown();
    }

    bool start_daemon() {
        center.reset();
        center.emplace(
            std::vector<std::string>{ZAV_TEST_CENTERD, "--config", path("zav_shm.json")});
        while (const auto line = center->read_line()) {
            if (line->rfind("zav-shm-centerd ", 0) == 0) {
                return true;
            }
        }
        return false;
    }

    Json::Value status_by_tool() {
        Tool_Process tool = start({"status", "--json"});
        const Json::Value status = parsed_json(tool.output());
        EXPECT_EQ(tool.status(), 0) << tool.errors();
        return status;
    }

    Tool_Process start_publisher() {
        return start({"publish", "--synthetic", "--name", "CAM_LOOP", "--fps", "25", "--quiet"});
    }
    Tool_Process start_recorder() {
        Tool_Process recorder =
            start({"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o", path("out"),
                   "--index", path("index"), "--verify-synthetic", "--strict", "--quiet"});
        recorder.says("connected");
        return recorder;
    }
};

TEST_F(Tool_Daemon, status_shows_who_takes_frames_from_whom) {
    Tool_Process recorder = start_recorder();
    Tool_Process publisher = start_publisher();
    Json::Value reader;
    ASSERT_TRUE(becomes_true([&] {
        reader = status_by_tool()["ring_consumers"][0];
        return reader["received"].asInt() > 0;
    }));
    EXPECT_EQ(reader["consumer"], "RECODER");
    EXPECT_EQ(reader["producer"], "CAM_LOOP");
    EXPECT_EQ(reader["pid"].asInt(), recorder.pid());
    EXPECT_EQ(reader["lost"].asInt(), 0);
    Tool_Process text = start({"status"});
    EXPECT_NE(text.output().find("RECODER/0/0"), std::string::npos);
    EXPECT_EQ(text.status(), 0);
    Tool_Process names = start({"names"});
    EXPECT_NE(names.output().find("RECODER/0/0"), std::string::npos);
    EXPECT_EQ(names.status(), 0);
    for (Tool_Process* process : {&publisher, &recorder}) {
        process->signal(SIGTERM);
        EXPECT_EQ(process->status(), 0);
    }
}

TEST_F(Tool_Daemon, consumer_that_runs_follows_a_pairing_by_the_tool) {
    const auto publish = [this](const char* name, const char* size) {
        return start(
            {"publish", "--synthetic", "--name", name, "--size", size, "--fps", "25", "--quiet"});
    };
    Tool_Process loop = publish("CAM_LOOP", "4000");
    Tool_Process rec = publish("CAM_REC", "5000");
    Tool_Process recorder =
        start({"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o", path("out"), "--index",
               path("index"), "--verify-synthetic", "--quiet"});
    const auto records = [this](const char* bytes) {
        return becomes_true(
            [&] { return content(path("index")).find(bytes) != std::string::npos; });
    };
    ASSERT_TRUE(records(" 4000 "));
    Tool_Process pair = start({"pair", "--name", "RECODER", "--pair", "CAM_REC"});
    EXPECT_EQ(pair.status(), 0) << pair.errors();
    EXPECT_TRUE(records(" 5000 "));
    for (Tool_Process* process : {&loop, &rec, &recorder}) {
        process->signal(SIGTERM);
        EXPECT_EQ(process->status(), 0);
    }
    EXPECT_EQ(recorder.figure("torn"), 0);
}

TEST_F(Tool_Daemon, names_are_those_of_its_configuration) {
    Tool_Process text = start({"names"});
    EXPECT_EQ(text.output(),
              "producer  channels  streams  page sizes    feeds\n"
              "CAM_LOOP         2        2  65536, 16384  -\n"
              "CAM_REC          1        2  65536, 16384  -\n"
              "\n"
              "consumer  channels  streams  page sizes    fed by\n"
              "PLAYER           2        2  65536, 16384  -\n"
              "RECODER          2        2  65536, 16384  -\n");
    EXPECT_EQ(text.status(), 0) << text.errors();
    Tool_Process json = start({"names", "--json"});
    const Json::Value names = parsed_json(json.output());
    EXPECT_EQ(json.status(), 0);
    EXPECT_EQ(names["producers"].size(), 2U);
    EXPECT_EQ(names["producers"][1]["name"], "CAM_REC");
    EXPECT_EQ(names["consumers"][0]["streams"][1]["page_size"].asInt(), 16384);
}

TEST_F(Tool_Daemon, status_sees_a_center_of_another_process_namespace) {
    Tool_Process tool =
        start({"status", "--json"}, "exec unshare --pid --fork --mount-proc \"$@\"");
    const Json::Value status = parsed_json(tool.output());
    EXPECT_EQ(tool.status(), 0) << tool.errors();
    EXPECT_TRUE(status["alive"].asBool());
}

TEST_F(Tool_Daemon, kick_is_confirmed) {
    for (const bool on : {true, false}) {
        const std::string word = on ? "on" : "off";
        Tool_Process tool = start({"kick", word, "--wait", "5"});
        EXPECT_EQ(tool.output(), "kick " + word + ": confirmed\n");
        EXPECT_EQ(tool.status(), 0) << tool.errors();
        EXPECT_EQ(status_by_tool()["kick_idle"].asBool(), on);
    }
}

TEST_F(Tool_Daemon, recording_goes_on_when_the_center_was_killed_and_started_again) {
    Tool_Process recorder = start_recorder();
    Tool_Process publisher = start_publisher();
    const auto is_recording = [this] { return content(path("out")).size() > 20'000; };
    ASSERT_TRUE(becomes_true(is_recording));
    center->kill();
    Tool_Process gone = start({"status"});
    EXPECT_EQ(gone.status(), no_center);
    EXPECT_TRUE(gone.says("the center is gone"));
    ASSERT_TRUE(start_daemon());
    const std::size_t before = content(path("out")).size();
    ASSERT_TRUE(becomes_true([&] { return content(path("out")).size() > before + 20'000; }))
        << recorder.errors() << publisher.errors();
    publisher.signal(SIGTERM);
    EXPECT_EQ(publisher.status(), 0);
    recorder.signal(SIGTERM);
    EXPECT_EQ(recorder.status(), 0);
    EXPECT_GE(recorder.figure("reconnects"), 1);
    EXPECT_EQ(recorder.figure("damaged"), 0);
    EXPECT_EQ(recorder.figure("lost"), 0);
    EXPECT_EQ(recorder.figure("gaps"), 0);
    EXPECT_EQ(recorder.figure("last") - recorder.figure("first") + 1, recorder.figure("frames"));
    EXPECT_GE(publisher.figure("recoveries"), 1);
    EXPECT_EQ(publisher.figure("refused"), 0);
}

}  // namespace
