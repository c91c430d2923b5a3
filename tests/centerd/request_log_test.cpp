// SPDX-License-Identifier: Apache-2.0
//
// What the daemon logs of its clients, and counts in the status.
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "daemon_fixture.h"

namespace {

using namespace std::chrono_literals;

class Daemon_Log : public Daemon_Process {
protected:
    static std::string registration(const std::string& name, int channel = 0) {
        return R"({"command":"register","type":"Receiver","pair_name":"CAM_LOOP","name":")" + name +
               R"(","channel":)" + std::to_string(channel) + R"(,"stream":1})";
    }
    static std::string pairing(const std::string& producer) {
        return R"({"command":"pair_src","type":"Receiver","name":"PLAYER","channel":0,)"
               R"("stream":1,"pair_name":")" +
               producer + "\"}";
    }
    std::size_t lines_with(const std::string& text) const {
        std::size_t count = 0;
        const std::string all = errors();
        for (std::size_t at = all.find(text); at != std::string::npos;
             at = all.find(text, at + 1)) {
            ++count;
        }
        return count;
    }
    // As the next second's status has it.
    static Json::Value status_with(const std::string& field, unsigned value) {
        Json::Value status;
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::ifstream file("/dev/shm/shm/center_status.json");
            Json::parseFromStream(Json::CharReaderBuilder(), file, &status, nullptr);
            if (status[field].asUInt() == value) {
                break;
            }
            std::this_thread::sleep_for(50ms);
        }
        return status;
    }
};

TEST_F(Daemon_Log, tells_who_comes_goes_and_is_paired_where_that_is_wanted) {
    ASSERT_TRUE(start({"--log-level", "info"}));
    const std::string me = std::to_string(getpid());
    client.ask(registration("PLAYER"));
    client.ask(pairing("CAM_REC"));
    client.ask(pairing("NONE"));
    client.ask(
        R"({"command":"deregister","type":"Receiver","name":"PLAYER","channel":0,"stream":1})");
    EXPECT_EQ(end(), 0);
    const std::string front = "zav-shm-centerd: PLAYER/0/1: process " + me;
    EXPECT_NE(errors().find(front + " consumes from CAM_LOOP\n"), std::string::npos) << errors();
    EXPECT_NE(errors().find(front + " pairs it with CAM_REC\n"), std::string::npos) << errors();
    EXPECT_NE(errors().find(front + " leaves\n"), std::string::npos) << errors();
}

TEST_F(Daemon_Log, tells_by_itself_who_is_refused_and_nothing_else) {
    ASSERT_TRUE(start());
    client.ask(registration("PLAYER"));
    client.ask(registration("NOBODY"));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(errors(), "zav-shm-centerd: NOBODY/0/1: register of process " +
                            std::to_string(getpid()) +
                            " is refused: Can't Find Channel 0, Stream 1 Receiver\n");
}

TEST_F(Daemon_Log, counts_requests_refusals_and_pairings) {
    ASSERT_TRUE(start());
    client.ask(registration("PLAYER"));
    client.ask(pairing("CAM_REC"));
    client.ask(registration("NOBODY"));
    requests.send("no request at all");
    const Json::Value status = status_with("pairings", 2);
    EXPECT_EQ(status["requests"]["register"].asUInt(), 2U) << status;
    EXPECT_EQ(status["requests"]["pair_src"].asUInt(), 1U);
    EXPECT_EQ(status_with("refused", 1)["refused"].asUInt(), 1U);
    EXPECT_EQ(status["pairings"].asUInt(), 2U);
    EXPECT_EQ(end(), 0);
}

// Whoever asks for nonsense without end, also under ever new names, fills no log.
TEST_F(Daemon_Log, a_flood_of_refusals_is_cut) {
    ASSERT_TRUE(start({"--log-level", "debug"}));
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1500; ++i) {
        client.ask(registration("NAME" + std::to_string(i), i));
    }
    const auto seconds = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(end(), 0);
    EXPECT_LE(lines_with("is refused"),
              300 + 10 * std::chrono::ceil<std::chrono::seconds>(seconds).count());
    EXPECT_GE(lines_with("is refused"), 250U);
}

TEST_F(Daemon_Log, unknown_level_is_named) {
    const Ended ended = run({"--log-level", "loud"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.errors.find("'loud' is none of error, warning, notice, info, debug"),
              std::string::npos)
        << ended.errors;
}

}  // namespace
