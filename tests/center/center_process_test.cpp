// SPDX-License-Identifier: Apache-2.0
//
// A center as a process of its own, which is killed, robbed of its queues, and asked by many.
#include <sys/wait.h>

#include <algorithm>
#include <csignal>

#include "center_process.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A center with idle relays takes some 10 ms a second, a spinning one all it can get.
constexpr long cpu_ms_max = 300;

long lines_in(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

class Lone_Center : public Center_Process {
protected:
    // A short answer might fit where the others left a little room.
    bool answers_at_length() const {
        return field_of(
                   client.ask(R"({"command":"query_shm","type":")" + std::string(430, 'x') + "\"}"),
                   "status") == "invalid_name";
    }

    bool answers() const { return field_of(client.ask(farewell), "status") == "success"; }
};

// ---- life ----

TEST_F(Lone_Center, serves_until_it_is_told_to_end_and_exits_with_0) {
    ASSERT_TRUE(start_center());
    EXPECT_TRUE(answers());
    center->signal(SIGTERM);
    EXPECT_EQ(center->read_rest(), "ended\n");
    EXPECT_EQ(center->wait(), 0);
}

// Both wait for requests on one queue, so either may get what was meant for the other.
TEST_F(Lone_Center, ends_although_another_center_listens_on_its_queue) {
    ASSERT_TRUE(start_center());
    std::optional<Child_Process> first = std::move(center);
    ASSERT_TRUE(start_center());
    first->signal(SIGTERM);
    EXPECT_EQ(first->wait(), 0);
    EXPECT_TRUE(answers());
    center->signal(SIGTERM);
    EXPECT_EQ(center->wait(), 0);
}

TEST_F(Lone_Center, serves_on_when_its_object_is_destroyed_without_a_shutdown) {
    ASSERT_TRUE(start_center(small_configuration, "destroyed"));
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(answers());
    }
    EXPECT_EQ(field_of(client.ask(R"({"command":"register","type":"Receiver","name":"PLAYER",)"
                                  R"("pair_name":"CAM_LOOP"})"),
                       "shm_path"),
              "/shm/CAM_LOOP_0_0");
    EXPECT_EQ(center->wait(milliseconds(0)), std::nullopt);
}

TEST_F(Lone_Center, killed_one_is_replaced_by_the_next) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(start_center());
        EXPECT_TRUE(answers());
        center->kill();
    }
    EXPECT_TRUE(requests.status().exists);
}

TEST_F(Lone_Center, requests_and_replies_of_a_killed_center_are_discarded_by_the_next) {
    ASSERT_TRUE(start_center());
    client.send_signed(farewell);
    ASSERT_TRUE(becomes_true([this] { return replies.messages() == 1; }));
    center->kill();
    client.send_signed(farewell);
    requests.send(std::string(8000, 'x'));
    ASSERT_TRUE(start_center());
    EXPECT_EQ(requests.messages(), 0U);
    EXPECT_EQ(replies.messages(), 0U);
    EXPECT_TRUE(answers());
    EXPECT_EQ(printed_within(milliseconds(200)), "");
}

// ---- queues ----

TEST_F(Lone_Center, neither_spins_nor_floods_when_its_request_queue_is_removed) {
    ASSERT_TRUE(start_center());
    requests.remove();
    const Load load = load_within(seconds(1));
    EXPECT_EQ(lines_in(load.printed), 1) << load.printed.substr(0, 500);
    EXPECT_LT(load.cpu_ms, cpu_ms_max);
    EXPECT_TRUE(answers());
}

TEST_F(Lone_Center, prints_a_line_each_time_that_its_request_queue_is_removed) {
    ASSERT_TRUE(start_center());
    for (int i = 0; i < 20; ++i) {
        requests.remove();
        ASSERT_TRUE(answers());
    }
    EXPECT_EQ(lines_in(printed_within(milliseconds(200))), 20);
}

TEST_F(Lone_Center, neither_spins_nor_floods_when_its_reply_queue_is_removed) {
    ASSERT_TRUE(start_center());
    replies.remove();
    EXPECT_TRUE(answers());
    replies.remove();
    const Load load = load_within(seconds(1));
    EXPECT_EQ(load.printed.substr(0, 500), "");
    EXPECT_LT(load.cpu_ms, cpu_ms_max);
    EXPECT_TRUE(answers());
}

TEST_F(Lone_Center, neither_spins_nor_floods_upon_a_message_that_is_too_long) {
    ASSERT_TRUE(start_center());
    requests.send(std::string(8000, 'x'));
    const Load load = load_within(seconds(1));
    EXPECT_EQ(load.printed.substr(0, 500), "Recv Error, Argument list too long\n");
    EXPECT_LT(load.cpu_ms, cpu_ms_max);
    EXPECT_TRUE(answers());
}

// Only root may use a queue that was made without permission bits.
TEST_F(Lone_Center, without_permission_on_its_queues_neither_spins_nor_floods) {
    requests.make();
    replies.make();
    if (!start_center(small_configuration, "unprivileged")) {
        ASSERT_EQ(center->wait(), 77);
        GTEST_SKIP() << "needs a second user";
    }
    const Load load = load_within(seconds(1));
    EXPECT_EQ(load.printed.rfind("Recv Error, Permission denied\n", 0), 0U);
    EXPECT_LE(lines_in(load.printed), 12);
    EXPECT_LT(load.cpu_ms, cpu_ms_max);
    center->signal(SIGTERM);
    EXPECT_EQ(center->wait(), 0);
}

TEST_F(Lone_Center, that_is_given_permission_on_its_queues_serves) {
    requests.make();
    replies.make();
    if (!start_center(small_configuration, "unprivileged")) {
        ASSERT_EQ(center->wait(), 77);
        GTEST_SKIP() << "needs a second user";
    }
    requests.set_mode(0666);
    replies.set_mode(0666);
    EXPECT_TRUE(answers());
}

// ---- many clients ----

class Many_Clients : public Lone_Center {
protected:
    void SetUp() override {
        Lone_Center::SetUp();
        ASSERT_TRUE(start_center());
    }
};

TEST_F(Many_Clients, each_of_eight_that_ask_at_once_gets_all_its_replies) {
    std::vector<Child_Process> askers;
    for (int i = 0; i < 8; ++i) {
        askers.push_back(start_client({"asker", "100"}));
    }
    for (Child_Process& asker : askers) {
        EXPECT_EQ(asker.read_rest(), "mine=100 another=0\n");
        EXPECT_EQ(asker.wait(), 0);
    }
    EXPECT_EQ(requests.messages(), 0U);
    EXPECT_EQ(replies.messages(), 0U);
    EXPECT_EQ(printed_within(milliseconds(100)), "");
}

// Each leaves a third of a full queue behind.
TEST_F(Many_Clients, that_exit_without_taking_their_replies_do_not_stop_the_others) {
    for (int i = 0; i < 12; ++i) {
        Child_Process leaver = start_client({"leaver", "10"});
        ASSERT_EQ(leaver.wait(), 0);
    }
    EXPECT_TRUE(answers_at_length());
    EXPECT_EQ(printed_within(milliseconds(100)), "");
    Child_Process asker = start_client({"asker", "20"});
    EXPECT_EQ(asker.read_rest(), "mine=20 another=0\n");
}

// Nobody has asked for their exit status yet, so the kernel keeps their numbers.
TEST_F(Many_Clients, that_are_dead_but_not_waited_for_do_not_stop_the_others) {
    std::vector<Child_Process> leavers;
    for (int i = 0; i < 6; ++i) {
        leavers.push_back(start_client({"leaver", "10"}));
        siginfo_t ended{};
        const auto id = static_cast<id_t>(leavers.back().pid());
        ASSERT_EQ(waitid(P_PID, id, &ended, WEXITED | WNOWAIT), 0);
    }
    EXPECT_TRUE(answers_at_length());
}

TEST_F(Many_Clients, that_are_killed_while_they_ask_do_not_stop_the_others) {
    for (int i = 0; i < 8; ++i) {
        Child_Process asker = start_client({"asker", "100000"});
        ASSERT_TRUE(becomes_true([this] { return replies.messages() + requests.messages() > 0; }));
        asker.kill();
    }
    Child_Process asker = start_client({"asker", "100"});
    EXPECT_EQ(asker.read_rest(), "mine=100 another=0\n");
}

}  // namespace
