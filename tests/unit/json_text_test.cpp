// SPDX-License-Identifier: Apache-2.0
#include "control/json_text.h"

#include <gtest/gtest.h>

using namespace zav_shm;

namespace {

TEST(Json_Text, of_an_object_is_read_with_comments_and_a_text_behind_it) {
    const Json::Value value = parsed_json("{\"a\": 1 /* one */} and more");
    EXPECT_EQ(count_at(value, "a"), 1U);
}

TEST(Json_Text, that_is_broken_is_null_and_keeps_what_was_read_for_those_who_want_it) {
    EXPECT_TRUE(parsed_json(R"({"a": "x", "b": )").isNull());
    Json::Value root;
    EXPECT_FALSE(read_json(R"({"a": "x", "b": )", root));
    EXPECT_EQ(text_at(root, "a"), "x");
}

TEST(Json_Text, that_is_nested_too_deep_is_null) {
    Json::Value root = 1;
    EXPECT_FALSE(read_json(std::string(5000, '['), root));
    EXPECT_TRUE(root.isNull());
}

TEST(Json_Text, members_of_another_type_read_as_missing) {
    const Json::Value value = parsed_json(R"({"text": 1, "count": -1, "flag": "yes", "list": {}})");
    EXPECT_EQ(text_at(value, "text"), "");
    EXPECT_EQ(count_at(value, "count"), 0U);
    EXPECT_FALSE(flag_at(value, "flag"));
    EXPECT_TRUE(list_at(value, "list").empty());
    EXPECT_TRUE(member_of(value, "none").isNull());
}

TEST(Json_Text, has_no_members_unless_it_is_an_object) {
    for (const char* text : {"", "7", "[1]", "\"text\"", "null"}) {
        EXPECT_TRUE(member_of(parsed_json(text), "a").isNull()) << text;
        EXPECT_EQ(text_at(parsed_json(text), "a"), "") << text;
    }
}

}  // namespace
