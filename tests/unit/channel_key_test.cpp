// SPDX-License-Identifier: Apache-2.0
#include "stream/channel_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

namespace {

using Key = Shm_Stream_Transmission_Index;
using Pair_Key = Shm_Stream_Transmission_Pair_Index;

template <class T>
std::string dump(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

TEST(Channel_Key, orders_by_name_then_channel_then_stream) {
    const std::vector<Key> ordered{
        {"A", 1, 0}, {"A", 1, 1}, {"A", 2, -1}, {"AB", 0, 0}, {"B", -5, 0}};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << ' ' << j;
        }
    }
}

TEST(Channel_Key, orders_names_by_bytes) {
    EXPECT_TRUE((Key{"Z", 0, 0} < Key{"a", 0, 0}));
    EXPECT_TRUE((Key{"a", 0, 0} < Key{"\xC3\xA4", 0, 0}));
}

TEST(Channel_Key, is_equal_when_all_three_are) {
    const Key key{"A", 1, 2};
    EXPECT_TRUE((key == Key{"A", 1, 2}));
    EXPECT_FALSE((key == Key{"B", 1, 2}));
    EXPECT_FALSE((key == Key{"A", 0, 2}));
    EXPECT_FALSE((key == Key{"A", 1, 0}));
}

TEST(Channel_Key, prints_its_parts_without_a_line_end) {
    EXPECT_EQ(dump(Key{"CAM_LOOP", 0, 1}), "Shm_Name : CAM_LOOP, Channel : 0, Stream : 1");
}

TEST(Channel_Key, prints_reset_parts_by_default) {
    EXPECT_EQ(dump(Key{}), "Shm_Name : , Channel : -1, Stream : -1");
}

TEST(Channel_Key, reset_empties_name_and_numbers) {
    Key key{"CAM_LOOP", 3, 1};
    key.reset();
    EXPECT_TRUE(key == Key{});
}

TEST(Channel_Key, copies_all_parts) {
    const Key key{"CAM_LOOP", 3, 1};
    const Key copy(key);
    EXPECT_TRUE(copy == key);
}

TEST(Pair_Key, keeps_the_pair_name_of_the_string_form) {
    const Pair_Key key(std::string("PLAYER"), 2, 1, std::string("CAM_LOOP"));
    EXPECT_EQ(key.name, "PLAYER");
    EXPECT_EQ(key.channel, 2);
    EXPECT_EQ(key.stream, 1);
    EXPECT_EQ(key.pair_name, "CAM_LOOP");
}

TEST(Pair_Key, of_the_text_form_is_paired_with_itself) {
    const Pair_Key key("PLAYER", 2, 1, "CAM_LOOP");
    EXPECT_EQ(key.name, "PLAYER");
    EXPECT_EQ(key.pair_name, "PLAYER");
}

TEST(Pair_Key, takes_null_texts_as_empty) {
    const char* const nothing = nullptr;
    const Pair_Key key(nothing, 2, 1, nothing);
    EXPECT_EQ(key.name, "");
    EXPECT_EQ(key.pair_name, "");
}

TEST(Pair_Key, prints_with_its_missing_blanks_and_a_line_end) {
    const Pair_Key key(std::string("PLAYER"), 2, 1, std::string("CAM_LOOP"));
    EXPECT_EQ(dump(key), "Shm_Name PLAYER Channel : 2, Stream : 1Pair NameCAM_LOOP\n");
}

TEST(Pair_Key, compares_without_the_pair_name) {
    const Pair_Key one(std::string("PLAYER"), 2, 1, std::string("CAM_LOOP"));
    const Pair_Key other(std::string("PLAYER"), 2, 1, std::string("CAM_REC"));
    EXPECT_TRUE(one == other);
    EXPECT_FALSE(one < other);
    EXPECT_FALSE(other < one);
}

TEST(Pair_Key, resets_through_the_base) {
    Pair_Key key(std::string("PLAYER"), 2, 1, std::string("CAM_LOOP"));
    Key& base = key;
    base.reset();
    EXPECT_EQ(key.name, "");
    EXPECT_EQ(key.channel, -1);
    EXPECT_EQ(key.stream, -1);
    EXPECT_EQ(key.pair_name, "");
}

TEST(Pair_Key, is_reset_by_default_and_copies_all_parts) {
    const Pair_Key fresh;
    EXPECT_TRUE(fresh == Key{});
    EXPECT_EQ(fresh.pair_name, "");
    const Pair_Key key(std::string("PLAYER"), 2, 1, std::string("CAM_LOOP"));
    const Pair_Key copy(key);
    EXPECT_EQ(dump(copy), dump(key));
}

}  // namespace
