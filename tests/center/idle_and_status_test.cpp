// SPDX-License-Identifier: Apache-2.0
#include "center_fixture.h"

namespace {

using Key = Shm_Stream_Transmission_Index;

const Key cam_loop{"CAM_LOOP", 0, 0};
const Key player{"PLAYER", 0, 0};

// One producer and one consumer, which is registered and never takes a frame.
const char* const one_pair = R"({
    "System": {"kick_idle": true},
    "Stream": [{"index": 0, "page_size": 4096}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0]}],
    "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0]}]
})";

class Idle_Consumer : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start(one_pair);
    }

    void register_player() const {
        ASSERT_EQ(field_of(client.ask(R"({"command":"register","type":"Receiver",)"
                                      R"("name":"PLAYER","pair_name":"CAM_LOOP"})"),
                           "status"),
                  "success");
    }

    // Ten waits in a row were missed.
    void wait_until_idle() const {
        const auto* const writer = center->manager()->get_distributor(player);
        ASSERT_TRUE(becomes_true([writer] { return writer->get_sem_wait_error() >= 10; }));
    }

    std::string printed_for(const std::string& request) const {
        return output_while([&] { client.send(request); });
    }

    bool is_paired() const {
        return center->manager()->get_transmission(cam_loop)->get_distributor_num() == 1;
    }
};

// ---- the switch ----

TEST_F(Idle_Consumer, switching_on_prints_1_and_is_not_answered) {
    EXPECT_EQ(printed_for(R"({"command": "kick_idle", "enable": true})"),
              "In SHM_CENTER_KICK_IDLE execute, 1\n");
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Idle_Consumer, switching_off_or_saying_nothing_prints_0) {
    for (const char* text :
         {R"({"command": "kick_idle", "enable": false})", R"({"command": "kick_idle"})",
          R"({"command": "kick_idle", "enable": null, "pid": 77})"}) {
        EXPECT_EQ(printed_for(text), "In SHM_CENTER_KICK_IDLE execute, 0\n") << text;
    }
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Idle_Consumer, number_switches_as_it_is_0_or_not) {
    EXPECT_EQ(printed_for(R"({"command": "kick_idle", "enable": 1})"),
              "In SHM_CENTER_KICK_IDLE execute, 1\n");
    EXPECT_EQ(printed_for(R"({"command": "kick_idle", "enable": 0})"),
              "In SHM_CENTER_KICK_IDLE execute, 0\n");
}

// ---- the kick ----

TEST_F(Idle_Consumer, stays_while_kicking_was_never_switched_on_whatever_the_configuration_says) {
    register_player();
    wait_until_idle();
    center->kick_idle_client();
    EXPECT_TRUE(is_paired());
}

TEST_F(Idle_Consumer, is_unpaired_by_the_next_pass_once_kicking_is_on) {
    register_player();
    wait_until_idle();
    printed_for(R"({"command": "kick_idle", "enable": true})");
    EXPECT_TRUE(is_paired());
    center->kick_idle_client();
    EXPECT_FALSE(is_paired());
}

TEST_F(Idle_Consumer, stays_once_kicking_was_switched_off_again) {
    register_player();
    wait_until_idle();
    printed_for(R"({"command": "kick_idle", "enable": true})");
    printed_for(R"({"command": "kick_idle"})");
    center->kick_idle_client();
    EXPECT_TRUE(is_paired());
}

TEST_F(Idle_Consumer, is_unpaired_when_the_host_itself_switches_kicking_on) {
    register_player();
    wait_until_idle();
    center->enable_kick_idle_client(true);
    center->kick_idle_client();
    EXPECT_FALSE(is_paired());
}

TEST_F(Idle_Consumer, may_register_again_after_the_kick) {
    register_player();
    wait_until_idle();
    center->enable_kick_idle_client(true);
    center->kick_idle_client();
    register_player();
    EXPECT_TRUE(is_paired());
}

// The relay is stopped, so that nothing is counted between the consumer's sign and the pass.
TEST_F(Idle_Consumer, that_has_just_announced_itself_is_idle_no_more) {
    register_player();
    wait_until_idle();
    center->manager()->get_transmission(cam_loop)->stop();
    const SEM_CTRL present("/DST_PLAYER_SEM_0_0_2", false);
    sem_post(present.sem);
    ASSERT_TRUE(center->manager()->get_distributor(player)->time_wait_receiver_exist(0));
    center->enable_kick_idle_client(true);
    center->kick_idle_client();
    EXPECT_TRUE(is_paired());
}

// ---- the status ----

TEST_F(Idle_Consumer, status_lists_producers_relays_and_consumers) {
    EXPECT_EQ(printed_for(R"({"command": "query_status"})"),
              "======== Distributor =======\n"
              "Shm_Name : CAM_LOOP, Channel : 0, Stream : 0\n"
              "======== Transmission ========\n"
              "\n"
              "\n"
              "======== Receiver =======\n"
              "Shm_Name : PLAYER, Channel : 0, Stream : 0\n"
              "\n");
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Idle_Consumer, status_has_a_line_more_in_a_relay_per_consumer) {
    register_player();
    EXPECT_EQ(printed_for(R"({"command": "query_status", "pid": 77})"),
              "======== Distributor =======\n"
              "Shm_Name : CAM_LOOP, Channel : 0, Stream : 0\n"
              "======== Transmission ========\n"
              "\n"
              "\n"
              "\n"
              "======== Receiver =======\n"
              "Shm_Name : PLAYER, Channel : 0, Stream : 0\n"
              "\n");
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Idle_Consumer, status_is_printed_whatever_the_text_given_to_the_operation) {
    const std::string printed = output_of([this] { center->shm_center_query_status("no JSON"); });
    EXPECT_EQ(printed, output_of([this] { center->shm_center_query_status(""); }));
    EXPECT_EQ(printed.rfind("======== Distributor =======\n", 0), 0U);
}

}  // namespace
