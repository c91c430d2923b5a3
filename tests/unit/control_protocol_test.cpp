// SPDX-License-Identifier: Apache-2.0
#include "control/control_protocol.h"

#include <gtest/gtest.h>

namespace {

using namespace zav_shm::control;

TEST(Control_Fields, read_what_a_request_says) {
    const Request request(R"({"channel":3,"command":"register","name":"PLAYER",)"
                          R"("pair_name":"CAM_LOOP","pid":812,"stream":1,"type":"Receiver"})");
    EXPECT_EQ(request.type, "Receiver");
    EXPECT_EQ(request.name, "PLAYER");
    EXPECT_EQ(request.pair_name, "CAM_LOOP");
    EXPECT_EQ(request.channel, 3);
    EXPECT_EQ(request.stream, 1);
    EXPECT_EQ(request.pid, 812);
}

TEST(Control_Fields, missing_ones_read_as_empty_zero_and_false) {
    const Fields fields("{}");
    EXPECT_EQ(fields.text("name"), "");
    EXPECT_EQ(fields.number("pid"), 0);
    EXPECT_FALSE(fields.flag("enable"));
    EXPECT_TRUE(fields.numbers("page_size").empty());
    EXPECT_FALSE(fields.is_text("command"));
}

// Each of these ends a program that asks the JSON library without looking first.
TEST(Control_Fields, of_a_text_that_is_no_object_read_as_missing) {
    for (const char* text : {"", " ", "5", "-1e400", "[1]", "\"text\"", "null", "true", "nonsense",
                             "{", "}", "[[[[", "\xff\xfe", "//", "/*"}) {
        const Fields fields(text);
        EXPECT_EQ(fields.text("name"), "") << text;
        EXPECT_EQ(fields.number("pid"), 0) << text;
        EXPECT_FALSE(fields.flag("enable")) << text;
        EXPECT_FALSE(fields.is_text("command")) << text;
    }
}

TEST(Control_Fields, that_do_not_convert_read_as_missing) {
    const Fields fields(R"({"name":{},"pid":"x","enable":"yes","page_size":7,"command":5})");
    EXPECT_EQ(fields.text("name"), "");
    EXPECT_EQ(fields.number("pid"), 0);
    EXPECT_FALSE(fields.flag("enable"));
    EXPECT_TRUE(fields.numbers("page_size").empty());
    EXPECT_FALSE(fields.is_text("command"));
}

TEST(Control_Fields, numbers_out_of_range_read_as_zero) {
    for (const char* pid :
         {"3000000000", "-3000000000", "99999999999999999999", "1e300", "-1e300"}) {
        EXPECT_EQ(Fields(std::string("{\"pid\":") + pid + "}").number("pid"), 0) << pid;
    }
    EXPECT_EQ(Fields(R"({"pid":2147483647})").number("pid"), 2147483647);
    EXPECT_EQ(Fields(R"({"pid":-2147483648})").number("pid"), -2147483647 - 1);
}

TEST(Control_Fields, convert_as_documented_where_the_library_does) {
    const Fields fields(R"({"a":1.9,"b":true,"c":12,"d":0,"e":null})");
    EXPECT_EQ(fields.number("a"), 1);
    EXPECT_EQ(fields.number("b"), 1);
    EXPECT_EQ(fields.text("c"), "12");
    EXPECT_TRUE(fields.flag("c"));
    EXPECT_FALSE(fields.flag("d"));
    EXPECT_EQ(fields.text("e"), "");
    EXPECT_FALSE(fields.is_text("c"));
}

TEST(Control_Fields, of_a_text_nested_too_deep_read_as_missing) {
    EXPECT_EQ(Fields(std::string(1024, '[')).number("pid"), 0);
    std::string deep = R"({"pid":7,"x":)";
    for (int i = 0; i < 1500; ++i) {
        deep += "[";
    }
    EXPECT_EQ(Fields(deep).number("pid"), 0);
}

TEST(Control_Fields, before_an_error_in_the_text_are_used) {
    EXPECT_EQ(Fields(R"({"pid":7,"name":"X" nonsense)").number("pid"), 7);
}

TEST(Control_Fields, may_stand_beside_comments_and_before_other_text) {
    EXPECT_EQ(Fields("/* a */ {\"pid\":7} // b\n and more").number("pid"), 7);
}

TEST(Control_Fields, numbers_of_an_array_keep_their_places) {
    EXPECT_EQ(Fields(R"({"page_size":[1048576,"x",7]})").numbers("page_size"),
              (std::vector<int>{1048576, 0, 7}));
}

TEST(Control_Text, of_a_reply_is_indented_by_tabs) {
    Json::Value reply;
    reply["command"] = "register";
    reply["status"] = "success";
    EXPECT_EQ(written_with_tabs(reply),
              "{\n\t\"command\" : \"register\",\n\t\"status\" : \"success\"\n}");
}

TEST(Control_Text, of_a_request_stands_on_one_line) {
    Json::Value request;
    request["command"] = "register";
    request["pid"] = 812;
    EXPECT_EQ(written_on_one_line(request), R"({"command":"register","pid":812})");
}

}  // namespace
