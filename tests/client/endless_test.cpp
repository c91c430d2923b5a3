// SPDX-License-Identifier: Apache-2.0
//
// Calls that go on for ever by design, each in a process of its own that is killed in the end.
#include "client_fixture.h"
#include "support/child_process.h"

namespace {

using std::chrono::milliseconds;

class Endless : public Clients {
protected:
    // The child is killed before the center ends, and what is left on the queues goes.
    void TearDown() override {
        child.reset();
        center.reset();
        Raw_Queue::of_requests().remove();
        Raw_Queue::of_replies().remove();
        Channels::TearDown();
    }

    void start(const std::vector<std::string>& call) {
        std::vector<std::string> command{ZAV_TEST_ENDLESS};
        command.insert(command.end(), call.begin(), call.end());
        child.emplace(command);
    }

    void expect_line(const std::string& line) { EXPECT_EQ(child->read_line(), line); }

    std::optional<Child_Process> child;
};

TEST_F(Endless, producers_pair_out_of_range_is_looked_for_again_and_again) {
    start({"get_distributor", "1", "0"});
    while (child->read_line() != "}") {  // of the query's request
    }
    while (child->read_line() != "}") {  // of its reply
    }
    expect_line("In get_distributor 1, 0");
    for (int turn = 0; turn < 1000; ++turn) {
        expect_line("Can't Find...Register it");
        expect_line("In get_distributor 1, 0");
    }
    EXPECT_EQ(center->requests().size(), 1U);
}

TEST_F(Endless, producers_pair_that_the_center_does_not_answer_for_is_asked_for_until_it_does) {
    center->configure(1, {4096});
    center->answer(query_reply("1", "1", "[4096]"));
    for (int i = 0; i < 20; ++i) {
        center->answer(R"({"command":"none"})");
    }
    start({"get_distributor", "0", "0"});
    for (std::optional<std::string> line; (line = child->read_line()) && line != "returned";) {
        ASSERT_TRUE(line);
    }
    EXPECT_EQ(center->requests().size(), 1U + 20 + 1 + 1);
    EXPECT_EQ(child->wait(), 0);
}

TEST_F(Endless, unpaired_consumers_endpoint_is_looked_for_again_and_again) {
    for (const char* call : {"get_receiver", "is_register"}) {
        start({call, "0", "0"});
        for (int turn = 0; turn < 1000; ++turn) {
            expect_line("Can't Find..., Register it");
        }
        EXPECT_EQ(center->requests().size(), 1U);
        child.reset();
    }
}

TEST_F(Endless, refused_consumer_asks_again_and_again) {
    center->answer(query_reply("0", "0", "[]"));
    for (int i = 0; i < 1000; ++i) {
        center->answer(R"({"command":"register","status":"fail"})");
    }
    start({"get_receiver", "0", "0", "CAM_LOOP"});
    for (int turn = 0; turn < 50; ++turn) {
        expect_line("Can't Find..., Register it");
    }
    EXPECT_GE(center->requests().size(), 1U + 49);
    EXPECT_FALSE(child->wait(milliseconds(0)));
}

TEST_F(Endless, without_a_center_the_first_exchange_waits_after_showing_its_request) {
    center.reset();
    start({"query", "0", "0"});
    expect_line("Recv Query : ");
    expect_line("{");
    while (child->read_line() != "}") {
    }
    EXPECT_FALSE(child->read_line(milliseconds(300)));
    EXPECT_FALSE(child->wait(milliseconds(0)));
    EXPECT_EQ(Raw_Queue::of_requests().messages(), 1U);
    ASSERT_TRUE(Raw_Queue::of_replies().send(query_reply("0", "0", "[]"), child->pid()));
    expect_line("Recv Query : ");
    EXPECT_EQ(child->wait(), 0);
}

}  // namespace
