// SPDX-License-Identifier: Apache-2.0
//
// The wall clock is set back by an hour under a daemon: clock_shim.cpp shows it such a clock.
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "daemon_fixture.h"

namespace {

using std::chrono::milliseconds;

const std::string player =
    R"("type":"Receiver","name":"PLAYER","pair_name":"CAM_LOOP","channel":0,"stream":0})";

class Daemon_Clock : public Daemon_Process {
protected:
    void SetUp() override {
        Daemon_Process::SetUp();
        set_ahead(0);
        ASSERT_EQ(mkfifo((folder() + "/steps").c_str(), 0600), 0);
    }

    void set_ahead(int seconds) const {
        write_file("ahead.new", std::to_string(seconds));
        ASSERT_EQ(rename((folder() + "/ahead.new").c_str(), (folder() + "/ahead").c_str()), 0);
    }

    void announce_step() const {
        const int steps = open((folder() + "/steps").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(steps, 0);
        EXPECT_EQ(write(steps, "!", 1), 1);
        close(steps);
    }

    bool start_with_shim(const Words& arguments = {}) {
        return start(arguments, {"/usr/bin/env", "LD_PRELOAD=" ZAV_TEST_CLOCK_SHIM,
                                 "CLOCK_SHIM_AHEAD=" + folder() + "/ahead",
                                 "CLOCK_SHIM_STEPS=" + folder() + "/steps", ZAV_TEST_PRELOADING});
    }

    // The status of the channel that the consumer is paired with.
    static Json::Value first_channel() {
        Json::Value status;
        Json::CharReaderBuilder reader;
        const std::string text = content_of("/dev/shm/shm/center_status.json");
        const std::unique_ptr<Json::CharReader> parser(reader.newCharReader());
        EXPECT_TRUE(parser->parse(text.data(), text.data() + text.size(), &status, nullptr));
        return status["channels"][0];
    }

    static std::uint64_t cycles() { return first_channel()["cycles"].asUInt64(); }

    // The relay of a consumer that does not take frames goes through its cycles, 28 a second.
    static bool relay_goes_on() {
        const std::uint64_t before = cycles();
        return becomes_true([before] { return cycles() > before + 5; }, milliseconds(4000));
    }

    // Long enough for the relay to begin a wait that ends in an hour.
    void hold_the_relay() const {
        set_ahead(3600);
        std::this_thread::sleep_for(milliseconds(1200));
        set_ahead(0);
    }
};

TEST_F(Daemon_Clock, relays_go_on_after_it_was_set_back_by_an_hour) {
    ASSERT_TRUE(start_with_shim()) << errors();
    ASSERT_EQ(field_of(client.ask(R"({"command":"register",)" + player), "status"), "success");
    ASSERT_TRUE(relay_goes_on());

    hold_the_relay();
    EXPECT_FALSE(relay_goes_on()) << "the clock of this test holds nobody";
    EXPECT_EQ(field_of(client.ask(R"({"command":"query_shm","type":"Receiver","name":"PLAYER"})"),
                       "status"),
              "success");

    announce_step();
    EXPECT_TRUE(relay_goes_on());
    EXPECT_EQ(field_of(client.ask(R"({"command":"deregister",)" + player), "status"), "success");
    EXPECT_EQ(end(), 0);
}

// A kick waits for the relay that is held; the main thread must not.
TEST_F(Daemon_Clock, relays_go_on_although_an_idle_kick_waits_for_one) {
    ASSERT_TRUE(start_with_shim({"--kick-interval", "0.1"})) << errors();
    ASSERT_EQ(field_of(client.ask(R"({"command":"register",)" + player), "status"), "success");
    ASSERT_TRUE(relay_goes_on());
    hold_the_relay();
    client.send(R"({"command":"kick_idle","enable":true})");
    std::this_thread::sleep_for(milliseconds(500));
    announce_step();
    EXPECT_TRUE(becomes_true([] { return first_channel()["consumers"].empty(); }));
    EXPECT_EQ(end(), 0);
}

// Nobody was told of the step.
TEST_F(Daemon_Clock, daemon_ends_although_relay_and_idle_kick_are_held) {
    ASSERT_TRUE(start_with_shim({"--kick-interval", "0.1"})) << errors();
    ASSERT_EQ(field_of(client.ask(R"({"command":"register",)" + player), "status"), "success");
    ASSERT_TRUE(relay_goes_on());
    hold_the_relay();
    client.send(R"({"command":"kick_idle","enable":true})");
    std::this_thread::sleep_for(milliseconds(500));
    EXPECT_EQ(end(), 0);
}

}  // namespace
