// SPDX-License-Identifier: Apache-2.0
//
// What travels on the two queues, apart from the meaning of each command. Expected replies stand
// as they travel, indented by tabs.
#include "center_fixture.h"

namespace {

class Protocol : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }

    // The request is dropped without a reply and without a line.
    void expect_dropped(const std::string& text) const {
        EXPECT_EQ(output_while([&] { client.send(text); }), "") << text;
        EXPECT_EQ(replies.messages(), 0U) << text;
    }
};

const std::string farewell_reply = R"({
	"command" : "deregister",
	"status" : "success"
})";

std::string signed_farewell(const std::string& pid) {
    return R"({"command":"deregister","type":"Distributor","pid":)" + pid + "}";
}

// ---- queues and records ----

TEST_F(Protocol, center_makes_both_queues_without_any_permission_bits) {
    EXPECT_TRUE(requests.status().exists);
    EXPECT_TRUE(replies.status().exists);
    EXPECT_EQ(requests.status().mode, 0U);
    EXPECT_EQ(replies.status().mode, 0U);
}

TEST_F(Protocol, reply_has_the_pid_as_its_type_and_no_byte_behind_the_text) {
    client.send_signed(farewell);
    const auto reply = replies.take();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type, getpid());
    EXPECT_EQ(reply->text.size(), farewell_reply.size());
    EXPECT_EQ(reply->text, farewell_reply);
}

TEST_F(Protocol, request_of_any_message_type_is_served) {
    for (const long type : {1L, 2L, 4711L, 2147483647L}) {
        requests.send(signed_farewell("77"), type);
        EXPECT_EQ(Raw_Client(77).reply(), farewell_reply) << type;
    }
}

TEST_F(Protocol, request_without_padding_is_served) {
    requests.send(signed_farewell("77"));
    EXPECT_EQ(Raw_Client(77).reply(), farewell_reply);
}

TEST_F(Protocol, text_ends_at_the_first_zero_byte) {
    std::string record = signed_farewell("77");
    record.push_back('\0');
    record += R"(,"command":"query_status")";
    requests.send(record);
    EXPECT_EQ(Raw_Client(77).reply(), farewell_reply);
}

TEST_F(Protocol, text_without_a_zero_byte_reaches_to_the_end_of_the_record) {
    std::string record(1028 - signed_farewell("77").size(), ' ');
    requests.send(record + signed_farewell("77"));
    EXPECT_EQ(Raw_Client(77).reply(), farewell_reply);
}

TEST_F(Protocol, former_request_shows_through_no_shorter_one) {
    requests.send(std::string(1028, 'x'));
    requests.send(signed_farewell("77"));
    requests.send("{");
    EXPECT_EQ(Raw_Client(77).reply(), farewell_reply);
    settle();
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Protocol, empty_message_is_dropped) {
    EXPECT_EQ(output_while([this] { requests.send(""); }), "");
    EXPECT_EQ(replies.messages(), 0U);
}

// ---- texts ----

TEST_F(Protocol, request_may_be_indented_and_its_members_in_any_order) {
    const std::string text = R"({
	"type" : "Distributor",
	"pid" : 77,
	"command" : "deregister"
})";
    client.send(text);
    EXPECT_EQ(Raw_Client(77).reply(), farewell_reply);
}

TEST_F(Protocol, comments_and_what_follows_the_object_are_accepted) {
    client.send("/* leaves */ " + signed_farewell("77") + " and more");
    EXPECT_EQ(Raw_Client(77).reply(), farewell_reply);
}

TEST_F(Protocol, text_that_breaks_off_is_read_up_to_there) {
    client.send(R"({"command":"deregister","type":"Distributor","pid":77,"name":"CAM)");
    EXPECT_EQ(Raw_Client(77).reply(), farewell_reply);
}

TEST_F(Protocol, later_one_of_two_equal_members_counts) {
    client.send(R"({"command":"query_status","command":"deregister","pid":76,"pid":77})");
    EXPECT_EQ(Raw_Client(77).reply(), R"({
	"command" : "deregister",
	"reason" : "Invalid Deregister Type ",
	"status" : "fail"
})");
}

// ---- commands ----

TEST_F(Protocol, request_without_a_known_command_is_dropped_in_silence) {
    for (const char* text :
         {R"({"pid":77})", R"({"command":null,"pid":77})", R"({"command":5,"pid":77})",
          R"({"command":["register"],"pid":77})", R"({"command":{},"pid":77})",
          R"({"command":"","pid":77})", R"({"command":"unregister","pid":77})",
          R"({"command":"register ","pid":77})", "", " ", "{}", "null", "register"}) {
        expect_dropped(text);
    }
}

TEST_F(Protocol, case_of_a_command_counts) {
    for (const char* command :
         {"Register", "DEREGISTER", "Pair_src", "query_SHM", "Kick_idle", "Query_status"}) {
        expect_dropped(std::string(R"({"command":")") + command + R"(","pid":77,"enable":true})");
    }
}

TEST_F(Protocol, kick_idle_and_query_status_are_never_answered_whatever_their_fields) {
    for (const char* command : {"kick_idle", "query_status"}) {
        for (const char* rest : {"", R"(,"pid":77)", R"(,"pid":77,"type":"Receiver")",
                                 R"(,"pid":77,"enable":true)", R"(,"pid":0,"enable":7)"}) {
            const std::string text = std::string(R"({"command":")") + command + "\"" + rest + "}";
            const std::string printed = output_while([&] { client.send(text); });
            EXPECT_EQ(printed.find("Fail"), std::string::npos) << text;
            EXPECT_EQ(replies.messages(), 0U) << text;
        }
    }
}

TEST_F(Protocol, case_of_a_type_counts) {
    EXPECT_EQ(client.ask(R"({"command":"register","type":"distributor","name":"CAM_LOOP"})"),
              R"({
	"command" : "register",
	"reason" : "Invalid Register Type distributor",
	"status" : "fail"
})");
    EXPECT_EQ(client.ask(R"({"command":"deregister","type":"distributor","name":"CAM_LOOP"})"),
              R"({
	"command" : "deregister",
	"reason" : "Invalid Deregister Type distributor",
	"status" : "fail"
})");
    EXPECT_EQ(client.ask(R"({"command":"query_shm","type":"distributor","name":"CAM_LOOP"})"),
              R"({
	"command" : "query_shm",
	"reason" : "Invalid Type distributor",
	"status" : "invalid_name"
})");
    EXPECT_EQ(client.ask(R"({"command":"pair_src","type":"receiver","name":"PLAYER"})"), R"({
	"command" : "pair_src",
	"reason" : "Can't Find Shm Name PLAYER",
	"status" : "invalid_name"
})");
}

// ---- addressing ----

TEST_F(Protocol, request_without_a_pid_above_zero_prints_the_failed_send) {
    for (const std::string& text :
         {std::string(farewell), signed_farewell("0"), signed_farewell("-1"),
          signed_farewell("null"), signed_farewell("-2147483648"), signed_farewell("0.9")}) {
        EXPECT_EQ(output_while([&] { client.send(text); }), send_failure) << text;
        EXPECT_EQ(replies.messages(), 0U) << text;
    }
}

TEST_F(Protocol, each_client_gets_the_reply_to_its_own_pid) {
    const Raw_Client one(4711);
    const Raw_Client other(4712);
    one.send_signed(R"({"command":"query_shm","type":"one"})");
    other.send_signed(R"({"command":"query_shm","type":"other"})");
    EXPECT_EQ(field_of(other.reply(), "reason"), "Invalid Type other");
    EXPECT_EQ(field_of(one.reply(), "reason"), "Invalid Type one");
}

TEST_F(Protocol, replies_leave_in_the_order_of_the_requests) {
    for (int i = 0; i < 10; ++i) {
        client.send_signed(R"({"command":"query_shm","type":"no. )" + std::to_string(i) + "\"}");
    }
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(field_of(client.reply(), "reason"), "Invalid Type no. " + std::to_string(i));
    }
}

TEST_F(Protocol, reply_to_a_process_that_is_gone_stays_until_the_next_center_drains_it) {
    client.send(signed_farewell(std::to_string(gone_pid())));
    settle();
    EXPECT_EQ(replies.messages(), 1U);
    stop();
    EXPECT_EQ(replies.messages(), 1U);
    start();
    EXPECT_EQ(replies.messages(), 0U);
}

}  // namespace
