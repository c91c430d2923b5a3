// SPDX-License-Identifier: Apache-2.0
//
// docs/status.schema.json against what the tool writes.
#include <csignal>
#include <filesystem>

#include "apps/tool/json_text.h"
#include "support/threads.h"
#include "tool/tool_process.h"

namespace {

using zav_shm::tool::parsed_json;

class Status_Schema : public Tool {
protected:
    Status_Schema() { leaves_cards = true; }

    void SetUp() override {
        Tool::SetUp();
        write(path("zav_shm.json"), tool_configuration);
        announce_leftovers_of(*parsed(tool_configuration));
        center.emplace(
            std::vector<std::string>{ZAV_TEST_CENTERD, "--config", path("zav_shm.json")});
        while (const auto line = center->read_line()) {
            if (line->rfind("zav-shm-centerd ", 0) == 0) {
                return;
            }
        }
        FAIL() << "the daemon has ended";
    }
    void TearDown() override {
        center->signal(SIGTERM);
        EXPECT_EQ(center->wait(std::chrono::seconds(10)), 0);
        Tool::TearDown();
    }

    // What the validator says; empty when all is well.
    std::string mistakes_in(const std::string& json) {
        write(path("json"), json);
        Child_Process validator(
            {"/usr/bin/python3", ZAV_TEST_VALIDATOR, ZAV_TEST_SCHEMA, path("json")});
        const std::string said = validator.read_rest();
        return validator.wait() == 0 ? "" : said + "\n" + json;
    }

    std::string output_of(const std::vector<std::string>& arguments) {
        Tool_Process tool = start(arguments);
        std::string output = tool.output();
        EXPECT_EQ(tool.status(), 0) << tool.errors();
        return output;
    }
};

TEST_F(Status_Schema, holds_for_streams_and_consumers_of_every_state) {
    Tool_Process camera = start({"publish", "--synthetic", "--name", "CAM_LOOP", "--fps", "50",
                                 "--key-interval", "5", "--quiet"});
    Tool_Process recorder =
        start({"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o", "/dev/null", "--quiet"});
    Tool_Process tap =
        start({"record", "--tap", "--pair", "CAM_LOOP", "-o", "/dev/null", "--quiet"});
    Tool_Process astray = start({"watch", "--tap", "--pair", "NOBODY", "--quiet"});
    ASSERT_TRUE(recorder.says("connected") && tap.says("connected") && astray.says("tap of"));
    tap.signal(SIGSTOP);
    write("/dev/shm/shm/rings/JUNK_0_0", "no ring");
    const std::string top = output_of({"top", "--once", "--json", "--interval", "1"});
    EXPECT_EQ(mistakes_in(top), "");
    const Json::Value seen = parsed_json(top);
    ASSERT_EQ(seen["streams"].size(), 2U);
    EXPECT_EQ(seen["streams"][1]["state"], "unread");
    const Json::Value& consumers = seen["streams"][0]["consumers"];
    ASSERT_EQ(consumers.size(), 2U);
    EXPECT_EQ(consumers[0]["name"], "RECODER");
    EXPECT_GT(consumers[0]["rates"]["frames_per_s"].asDouble(), 5);
    EXPECT_GT(consumers[0]["latency"]["p99_us"].asDouble(), 0);
    EXPECT_EQ(consumers[1]["state"], "stopped");
    EXPECT_EQ(seen["elsewhere"][0]["producer"], "NOBODY");
    std::filesystem::remove("/dev/shm/shm/rings/JUNK_0_0");
    for (Tool_Process* process : {&tap, &recorder, &astray, &camera}) {
        process->signal(SIGCONT);
        process->signal(SIGTERM);
        process->status();
    }
}

TEST_F(Status_Schema, holds_for_the_status_beside_what_it_was_before) {
    ASSERT_TRUE(
        becomes_true([] { return std::filesystem::exists("/dev/shm/shm/center_status.json"); }));
    Tool_Process camera =
        start({"publish", "--synthetic", "--name", "CAM_LOOP", "--fps", "50", "--quiet"});
    ASSERT_TRUE(camera.says("publishing"));
    const std::string text = output_of({"status", "--json"});
    EXPECT_EQ(mistakes_in(text), "");
    const Json::Value status = parsed_json(text);
    for (const char* member :
         {"pid", "epoch", "started_utc", "written_utc", "version", "configuration", "kick_idle",
          "names", "channels", "ring_consumers", "age_ms", "alive", "stale"}) {
        EXPECT_TRUE(status.isMember(member)) << member;
    }
    EXPECT_EQ(status["center"]["pid"], status["pid"]);
    EXPECT_EQ(status["streams"][0]["producer"], "CAM_LOOP");
    EXPECT_TRUE(status["streams"][0]["rates"].isNull());
    camera.signal(SIGTERM);
    camera.status();
}

TEST_F(Status_Schema, finds_what_is_wrong) {
    const std::string top = output_of({"top", "--once", "--json", "--interval", "0.1"});
    Json::Value value = parsed_json(top);
    value["streams"].append(Json::Value(Json::objectValue));
    EXPECT_NE(mistakes_in(zav_shm::tool::json_line(value)), "");
    value = parsed_json(top);
    value["schema"] = 2;
    EXPECT_NE(mistakes_in(zav_shm::tool::json_line(value)), "");
}

}  // namespace
