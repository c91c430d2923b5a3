// SPDX-License-Identifier: Apache-2.0
//
// No byte sequence on the request queue ends, blocks or confuses the center. Expected replies
// stand as they travel, indented by tabs.
#include <random>

#include "center_fixture.h"

namespace {

const char* const too_long = "Recv Error, Argument list too long\n";

class Hostile_Request : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }

    // Every use of this also checks that the center answers a sound request afterwards.
    std::string printed_for(const std::string& text) const {
        return output_while([&] { client.send(text); });
    }

    void forget_replies() const {
        while (replies.take(0, std::chrono::milliseconds(0))) {
        }
    }
};

// ---- texts ----

TEST_F(Hostile_Request, document_that_is_no_object_is_dropped) {
    for (const char* text : {"5", "[1]", "\"register\"", "true", "null", "-1e400", "[[],{}]",
                             R"([{"command":"register","pid":77}])"}) {
        EXPECT_EQ(printed_for(text), "") << text;
    }
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Hostile_Request, texts_that_are_no_json_are_dropped) {
    for (const char* text : {"{", "}", R"({"pid":1e400,"command":"register"})", "{\"", "{\"command",
                             "{\"command\":", "{\"command\":\"", "\\", "/*", "//",
                             "{\"command\":\"\\u12\"}", "\xef\xbb\xbf{}"}) {
        EXPECT_EQ(printed_for(text), "") << text;
    }
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Hostile_Request, brackets_nested_1024_deep_are_dropped) {
    EXPECT_EQ(printed_for(std::string(1024, '[')), "");
    EXPECT_EQ(printed_for(std::string(1028, '[')), "");
    EXPECT_EQ(printed_for(R"({"command":"register","pid":77,"name":)" + std::string(980, '[')), "");
}

// Below the reader's limit of 1000 levels: what stands in front of them is used.
TEST_F(Hostile_Request, brackets_nested_less_deep_are_a_member_like_others) {
    client.send(R"({"pid":77,"command":"deregister","type":)" + std::string(450, '[') +
                std::string(450, ']') + "}");
    EXPECT_EQ(Raw_Client(77).reply(), R"({
	"command" : "deregister",
	"reason" : "Invalid Deregister Type ",
	"status" : "fail"
})");
}

// ---- fields ----

TEST_F(Hostile_Request, type_that_is_an_object_reads_as_missing) {
    EXPECT_EQ(printed_for(R"({"command":"register","type":{}})"), send_failure);
    EXPECT_EQ(client.ask(R"({"command":"register","type":{}})"), R"({
	"command" : "register",
	"reason" : "Invalid Register Type ",
	"status" : "fail"
})");
}

TEST_F(Hostile_Request, names_that_are_no_texts_read_as_missing) {
    EXPECT_EQ(client.ask(R"({"command":"query_shm","type":"Receiver","name":["PLAYER"]})"), R"({
	"command" : "query_shm",
	"reason" : "Can't Find Shm Name  Receiver",
	"status" : "invalid_name"
})");
    EXPECT_EQ(client.ask(R"({"command":"pair_src","type":"Receiver","name":"PLAYER",)"
                         R"("pair_name":{"CAM_REC":1}})"),
              R"({
	"command" : "pair_src",
	"reason" : "Can't Find Shm Pair Name ",
	"status" : "invalid_name"
})");
}

TEST_F(Hostile_Request, pid_that_is_no_number_in_range_reads_as_missing) {
    for (const char* pid : {"\"x\"", "\"77\"", "3000000000", "-3000000000", "1e300", "1e10", "[77]",
                            "{}", "18446744073709551615", "99999999999999999999999"}) {
        const std::string text =
            std::string(R"({"pid":)") + pid + R"(,"command":"deregister","type":"Distributor"})";
        EXPECT_EQ(printed_for(text), send_failure) << text;
    }
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Hostile_Request, numbers_out_of_range_read_as_0) {
    for (const char* number : {"3000000000", "\"1\"", "[1]", "1e300", "{}"}) {
        const std::string reply = client.ask(
            std::string(R"({"command":"register","type":"Distributor","name":"CAM_LOOP",)") +
            R"("channel":)" + number + R"(,"stream":)" + number + "}");
        EXPECT_EQ(field_of(reply, "shm_path"), "/shm/CAM_LOOP_0_0") << number;
    }
}

TEST_F(Hostile_Request, fraction_is_cut) {
    EXPECT_EQ(field_of(client.ask(R"({"command":"register","type":"Distributor",)"
                                  R"("name":"CAM_LOOP","channel":1.9})"),
                       "shm_path"),
              "/shm/CAM_LOOP_1_0");
}

TEST_F(Hostile_Request, switch_that_is_a_text_reads_as_false) {
    EXPECT_EQ(printed_for(R"({"command":"kick_idle","enable":"yes"})"),
              "In SHM_CENTER_KICK_IDLE execute, 0\n");
    EXPECT_EQ(printed_for(R"({"command":"kick_idle","enable":[true]})"),
              "In SHM_CENTER_KICK_IDLE execute, 0\n");
}

TEST_F(Hostile_Request, name_with_a_zero_byte_is_not_the_name_in_front_of_it) {
    EXPECT_EQ(client.ask(R"({"command":"query_shm","type":"Receiver","name":"PLAYER\u0000x"})"),
              R"({
	"command" : "query_shm",
	"reason" : "Can't Find Shm Name PLAYER\u0000x Receiver",
	"status" : "invalid_name"
})");
}

TEST_F(Hostile_Request, name_that_is_no_utf_8_is_refused_like_others) {
    const std::string reply =
        client.ask("{\"command\":\"query_shm\",\"type\":\"Receiver\",\"name\":\"\xff\xfe\xc0\"}");
    EXPECT_EQ(field_of(reply, "status"), "invalid_name");
}

// ---- replies that fit no record ----

// Each of these characters takes six in the reply.
TEST_F(Hostile_Request, reply_longer_than_a_record_is_not_sent) {
    const std::string name(400, '\x01');
    for (const char* rest :
         {R"("command":"query_shm","type":"Receiver","name":")",
          R"("command":"pair_src","type":"Receiver","name":")", R"("command":"register","type":")",
          R"("command":"deregister","type":")"}) {
        EXPECT_EQ(printed_for(R"({"pid":77,)" + std::string(rest) + name + "\"}"), send_failure)
            << rest;
    }
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Hostile_Request, reply_of_1024_bytes_is_sent_and_one_of_1025_is_not) {
    const std::string front = "{\n\t\"command\" : \"query_shm\",\n\t\"reason\" : \"Invalid Type ";
    const std::string back = "\",\n\t\"status\" : \"invalid_name\"\n}";
    const std::string type(1024 - front.size() - back.size(), 'x');
    EXPECT_EQ(client.ask(R"({"command":"query_shm","type":")" + type + "\"}"), front + type + back);
    EXPECT_EQ(printed_for(R"({"pid":77,"command":"query_shm","type":"x)" + type + "\"}"),
              send_failure);
}

// ---- messages that fit no record ----

TEST_F(Hostile_Request, message_longer_than_a_record_prints_one_line_and_is_dropped) {
    for (const std::size_t length : {1029U, 2000U, 8192U}) {
        EXPECT_EQ(output_while([&] { requests.send(std::string(length, 'x')); }), too_long)
            << length;
        EXPECT_EQ(requests.messages(), 0U);
    }
}

TEST_F(Hostile_Request, requests_between_messages_that_are_too_long_are_served) {
    const std::string printed = output_while([this] {
        for (int i = 0; i < 20; ++i) {
            requests.send(std::string(1500, '{'));
            client.send_signed(R"({"command":"query_shm","type":"no. )" + std::to_string(i) +
                               "\"}");
            EXPECT_EQ(field_of(client.reply(), "reason"), "Invalid Type no. " + std::to_string(i));
        }
    });
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        expected += too_long;
    }
    EXPECT_EQ(printed, expected);
}

// A request that is sound but for its length is no request.
TEST_F(Hostile_Request, sound_request_in_a_message_that_is_too_long_is_not_served) {
    std::string text = R"({"pid":77,"command":"deregister","type":"Distributor"})";
    text.resize(1029);
    EXPECT_EQ(output_while([&] { requests.send(text); }), too_long);
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Hostile_Request, message_that_was_too_long_before_the_center_started_is_no_matter) {
    stop();
    requests.send(std::string(8192, 'x'));
    requests.send(std::string(1029, 'x'));
    const std::string printed = start();
    EXPECT_EQ(printed.find("Error"), std::string::npos);
    EXPECT_EQ(output_while([] {}), "");
}

// ---- anything at all ----

TEST_F(Hostile_Request, random_bytes_are_survived) {
    std::mt19937 random(5120);
    output_while([&] {
        for (int i = 0; i < 2000; ++i) {
            std::string bytes(random() % 1029, '\0');
            for (char& byte : bytes) {
                byte = static_cast<char>(random());
            }
            ASSERT_TRUE(requests.send(bytes, 1 + static_cast<long>(random() % 1000)));
        }
    });
}

TEST_F(Hostile_Request, damaged_requests_are_survived) {
    const std::string sound[] = {
        R"({"command":"register","type":"Receiver","name":"PLAYER","pair_name":"CAM_LOOP",)"
        R"("channel":0,"stream":0,"pid":4711})",
        R"({"command":"deregister","type":"Receiver","name":"PLAYER","channel":0,"pid":4711})",
        R"({"command":"pair_src","type":"Receiver","name":"PLAYER","pair_name":"CAM_REC","pid":4711})",
        R"({"command":"query_shm","type":"Receiver","name":"PLAYER","pid":4711})",
        R"({"command":"kick_idle","enable":true})",
        R"({"command":"query_status"})"};
    const std::string marks = "{}[]\",:\\/0123456789eE+-.tfn \x01\x80";
    std::mt19937 random(5121);
    output_while([&] {
        for (int i = 0; i < 2000; ++i) {
            std::string text = sound[random() % std::size(sound)];
            for (auto damages = 1 + random() % 3; damages > 0; --damages) {
                text[random() % text.size()] = marks[random() % marks.size()];
            }
            ASSERT_TRUE(client.send(text));
            forget_replies();
        }
        ASSERT_TRUE(becomes_true([this] { return requests.messages() == 0; }));
        forget_replies();
    });
}

}  // namespace
