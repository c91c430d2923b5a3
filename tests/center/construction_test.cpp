// SPDX-License-Identifier: Apache-2.0
//
// Building a center, its actions, and its ways of sending a reply. Expected replies stand as they
// travel, indented by tabs.
#include <algorithm>

#include "center_fixture.h"

namespace {

// ---- construction ----

class Construction : public Center {};

TEST_F(Construction, null_configuration_is_replaced_by_the_defaults_for_the_caller) {
    ZAV_SHM_CONFIG* made = nullptr;
    const std::string printed = output_of([&] { center = std::make_unique<ZAV_SHM_CENTER>(made); });
    ASSERT_NE(made, nullptr);
    config.reset(made);
    announce_leftovers_of(*config);
    EXPECT_EQ(config->distributor_num, 3);
    EXPECT_EQ(config->receiver_num, 4);
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 2 + 34);
    EXPECT_EQ(printed.rfind("Mkdir /dev/shm/shm\nMkdir /dev/shm/sem\n"
                            "Create SHM at /shm/CAM_LOOP_0_0\n",
                            0),
              0U);
}

// The default names have empty stream lists.
TEST_F(Construction, center_with_the_defaults_knows_its_names_and_refuses_every_stream) {
    ZAV_SHM_CONFIG* made = nullptr;
    output_of([&] { center = std::make_unique<ZAV_SHM_CENTER>(made); });
    config.reset(made);
    announce_leftovers_of(*config);
    EXPECT_EQ(client.ask(R"({"command":"query_shm","type":"Receiver","name":"RECODER"})"), R"({
	"channel" : 4,
	"command" : "query_shm",
	"name" : "RECODER",
	"root_path" : "/dev/shm",
	"shm_path" : "shm",
	"status" : "success",
	"stream" : 0,
	"type" : "Receiver"
})");
    EXPECT_EQ(client.ask(R"({"command":"register","type":"Distributor","name":"CAM_LOOP"})"), R"({
	"command" : "register",
	"reason" : "Can't Find Channel 0, Stream 0 Distributor",
	"status" : "fail"
})");
}

TEST_F(Construction, given_configuration_stays_the_callers) {
    const auto mine = parsed(small_configuration);
    ZAV_SHM_CONFIG* pointer = mine.get();
    output_of([&] { center = std::make_unique<ZAV_SHM_CENTER>(pointer); });
    announce_leftovers_of(*mine);
    EXPECT_EQ(pointer, mine.get());
    stop();
    EXPECT_EQ(mine->distributor_num, 3);
}

TEST_F(Construction, takes_100_ms_at_least) {
    const Stopwatch watch;
    start();
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(100));
}

TEST_F(Construction, messages_of_before_are_discarded_from_both_queues) {
    for (int i = 0; i < 5; ++i) {
        client.send_signed(R"({"command":"deregister","type":"Distributor"})");
        replies.send("{}", getpid());
    }
    start();
    settle();
    EXPECT_EQ(requests.messages(), 0U);
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Construction, queues_of_before_are_used_as_they_are) {
    requests.make();
    requests.set_mode(0666);
    start();
    settle();
    EXPECT_EQ(requests.status().mode, 0666U);
}

TEST_F(Construction, starting_the_receive_thread_again_starts_no_second_one) {
    start();
    const std::size_t threads = thread_count();
    const Stopwatch watch;
    center->create_recv_msgq();
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(100));
    EXPECT_EQ(thread_count(), threads);
    settle();
}

// ---- actions ----

template <class Action>
bool makes(const std::string& command) {
    const std::unique_ptr<SHM_CENTER_ACTION> action(
        Factory_Shm_Center_Action(R"({"command":")" + command + "\"}", nullptr));
    return dynamic_cast<Action*>(action.get()) != nullptr;
}

TEST(Action_Factory, makes_the_class_of_each_command) {
    EXPECT_TRUE(makes<SHM_CENTER_CLIENT_REGISTER>("register"));
    EXPECT_TRUE(makes<SHM_CENTER_CLIENT_DEREGISTER>("deregister"));
    EXPECT_TRUE(makes<SHM_CENTER_CLIENT_PAIR>("pair_src"));
    EXPECT_TRUE(makes<SHM_CENTER_QUERY_SHM>("query_shm"));
    EXPECT_TRUE(makes<SHM_CENTER_KICK_IDLE>("kick_idle"));
    EXPECT_TRUE(makes<SHM_CENTER_QUERY_STATUS>("query_status"));
}

TEST(Action_Factory, makes_nothing_for_other_texts) {
    for (const char* text : {"", "{}", "5", "[1]", "\"register\"", R"({"command":5})",
                             R"({"command":null})", R"({"command":"REGISTER"})"}) {
        EXPECT_EQ(Factory_Shm_Center_Action(text, nullptr), nullptr) << text;
    }
}

class Actions : public Center {};

TEST_F(Actions, every_one_serves_its_center_and_returns_0) {
    start();
    output_while([this] {
        for (const char* command :
             {"register", "deregister", "pair_src", "query_shm", "kick_idle", "query_status"}) {
            const std::string text =
                std::string(R"({"command":")") + command + R"(","pid":77,"enable":true})";
            const std::unique_ptr<SHM_CENTER_ACTION> action(
                Factory_Shm_Center_Action(text, center.get()));
            EXPECT_EQ(action->execute(text), 0) << command;
        }
    });
    for (const char* command : {"register", "deregister", "pair_src", "query_shm"}) {
        EXPECT_EQ(field_of(Raw_Client(77).reply(), "command"), command);
    }
    EXPECT_EQ(replies.messages(), 0U);
}

// ---- replies ----

class Replies : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }
};

TEST_F(Replies, raw_bytes_travel_unchanged) {
    const std::string bytes("a\0b\xff", 4);
    EXPECT_EQ(center->shm_center_reply_msg(bytes.data(), 4, 77), 0);
    EXPECT_EQ(Raw_Client(77).reply(), bytes);
}

TEST_F(Replies, text_travels_without_a_zero_byte) {
    EXPECT_EQ(center->shm_center_reply_msg(std::string("text"), 77), 0);
    EXPECT_EQ(Raw_Client(77).reply(), "text");
}

TEST_F(Replies, empty_text_travels_as_an_empty_message) {
    EXPECT_EQ(center->shm_center_reply_msg(std::string(), 77), 0);
    EXPECT_EQ(Raw_Client(77).reply(), "");
}

TEST_F(Replies, object_is_written_with_tabs_and_sorted_members) {
    Json::Value reply;
    reply["b"] = "text";
    reply["a"]["inner"] = 1;
    EXPECT_EQ(center->shm_center_reply_msg(reply, 77), 0);
    EXPECT_EQ(Raw_Client(77).reply(), R"({
	"a" : 
	{
		"inner" : 1
	},
	"b" : "text"
})");
}

TEST_F(Replies, two_words_become_command_and_status) {
    EXPECT_EQ(center->shm_center_reply_msg(std::string("pair_src"), std::string("success"), 77), 0);
    EXPECT_EQ(Raw_Client(77).reply(), R"({
	"command" : "pair_src",
	"status" : "success"
})");
}

TEST_F(Replies, text_of_1024_bytes_is_sent_and_a_longer_one_is_not) {
    EXPECT_EQ(center->shm_center_reply_msg(std::string(1024, 'x'), 77), 0);
    EXPECT_EQ(Raw_Client(77).reply(), std::string(1024, 'x'));
    for (const std::size_t length : {1025U, 1028U, 1029U, 100'000U}) {
        int result = 0;
        const std::string printed =
            output_of([&] { result = center->shm_center_reply_msg(std::string(length, 'x'), 77); });
        EXPECT_EQ(result, -1) << length;
        EXPECT_EQ(printed, send_failure) << length;
    }
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Replies, impossible_ones_fail_with_send_failure) {
    const auto printed_for = [](const auto& send) {
        int result = 0;
        const std::string printed = output_of([&] { result = send(); });
        EXPECT_EQ(result, -1);
        return printed;
    };
    EXPECT_EQ(printed_for([&] { return center->shm_center_reply_msg("text", -1, 77); }),
              send_failure);
    EXPECT_EQ(printed_for([&] { return center->shm_center_reply_msg(nullptr, 4, 77); }),
              send_failure);
    EXPECT_EQ(printed_for([&] { return center->shm_center_reply_msg("text", 4, 0); }),
              send_failure);
    EXPECT_EQ(printed_for([&] { return center->shm_center_reply_msg("text", 4, -77); }),
              send_failure);
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Replies, record_is_sent_with_the_size_that_is_given) {
    Message_Record record{77, "text and more"};
    EXPECT_EQ(center->send_q(&record, 4), 0);
    EXPECT_EQ(Raw_Client(77).reply(), "text");
    EXPECT_EQ(center->send_q(&record, 1028), 0);
    EXPECT_EQ(Raw_Client(77).reply().size(), 1028U);
}

TEST_F(Replies, record_that_cannot_be_sent_prints_one_line) {
    Message_Record record{0, "text"};
    int result = 0;
    EXPECT_EQ(output_of([&] { result = center->send_q(&record, 4); }),
              "SHM_Center Send Msg Fail\n");
    EXPECT_EQ(result, -1);
}

}  // namespace
