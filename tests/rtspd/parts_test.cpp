// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <limits>

#include "apps/rtspd/jpeg_header.h"
#include "apps/rtspd/nal_check.h"
#include "apps/rtspd/stream_address.h"
#include "apps/rtspd/timeline.h"
#include "apps/rtspd/unit_history.h"
#include "frame/frame_header.h"

namespace {

using namespace zav_shm::rtspd;

constexpr std::int64_t second = 1'000'000'000;

TEST(Stream_Address, paths_name_streams) {
    const auto stream = parse_path("/CAM_LOOP/3/sub");
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->text(), "CAM_LOOP/3/1");
    EXPECT_EQ(stream->path(), "/CAM_LOOP/3/sub");
    EXPECT_EQ(parse_path("/CAM/0/7")->path(), "/CAM/0/7");
    EXPECT_EQ(parse_path("/FRONT%20DOOR/0/audio")->text(), "FRONT DOOR/0/2");
}

TEST(Stream_Address, other_paths_name_none) {
    for (const char* path : {"",
                             "/",
                             "CAM/0/0",
                             "/CAM",
                             "/CAM/0",
                             "/CAM/0/",
                             "/CAM//0",
                             "//0/0",
                             "/CAM/0/0/",
                             "/CAM/0/0/0",
                             "/CAM/-1/0",
                             "/CAM/00/0",
                             "/CAM/0/1 ",
                             "/CAM/99999999999/0",
                             "/../0/0",
                             "/.hidden/0/0",
                             "/%2e%2e/0/0",
                             "/a%2fb/0/0",
                             "/CAM%00/0/0",
                             "/CAM%zz/0/0",
                             "/CAM%2",
                             "/AN_UNUSUALLY_LONG_NAME_OF_A_CAMERA/0/0",
                             "/CAM/0/MAIN"}) {
        EXPECT_FALSE(parse_path(path)) << path;
    }
}

TEST(Timeline, follows_the_times_of_the_publisher) {
    Timeline line;
    const std::int64_t first = line.place(7 * second, 0, true);
    EXPECT_EQ(line.place(8 * second, 1, false) - first, second);
    EXPECT_EQ(line.place(7 * second + second / 2, 2, false) - first, second / 2) << "B frames";
}

TEST(Timeline, goes_on_when_the_publisher_begins_anew) {
    Timeline line;
    line.place(100 * second, 10 * second, true);
    const std::int64_t last = line.place(101 * second, 11 * second, false);
    EXPECT_EQ(line.place(0, 13 * second, true) - last, 2 * second);
    EXPECT_EQ(line.place(second, 14 * second, false) - last, 3 * second);
}

TEST(Timeline, times_that_stand_still_are_replaced) {
    Timeline line;
    const std::int64_t first = line.place(0, 0, true);
    EXPECT_EQ(line.place(0, second, false) - first, second);
    EXPECT_EQ(line.place(0, 2 * second, false) - first, 2 * second);
}

TEST(Timeline, no_value_stops_it) {
    constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t greatest = std::numeric_limits<std::int64_t>::max();
    Timeline line;
    std::int64_t last = line.place(least, greatest, true);
    for (const std::int64_t value :
         {greatest, least, std::int64_t{0}, greatest, std::int64_t{-1}}) {
        const std::int64_t next = line.place(value, value == least ? greatest : -value, false);
        EXPECT_GE(next, last - Timeline::step_max_ns);
        EXPECT_LE(next, last + 3600 * second);
        last = next;
    }
}

std::vector<std::byte> bytes_of(std::initializer_list<int> values) {
    std::vector<std::byte> bytes;
    for (const int value : values) {
        bytes.push_back(static_cast<std::byte>(value));
    }
    return bytes;
}

TEST(Nal_Check, access_units_pass) {
    EXPECT_TRUE(is_sendable(zav_shm::codec::h264, bytes_of({0, 0, 0, 1, 9, 16, 0, 0, 1, 0x65, 1})));
    EXPECT_TRUE(is_sendable(zav_shm::codec::h265, bytes_of({0, 0, 1, 0x26, 1, 7, 0, 0, 0})));
}

TEST(Nal_Check, what_payloaders_stumble_over_does_not) {
    for (const auto& unit :
         {bytes_of({}), bytes_of({0, 0, 1}), bytes_of({0, 0, 0, 0}), bytes_of({1, 2, 3, 4}),
          bytes_of({0, 0, 1, 0, 0, 1, 0x65, 1}), bytes_of({0, 0, 1, 0x65}),
          bytes_of({0, 0, 1, 0xE5, 1}), bytes_of({0, 0, 1, 0x7C, 1, 2}),
          bytes_of({0, 0, 1, 0x67, 1}), bytes_of({7, 0, 0, 1, 0x65, 1}),
          bytes_of({0, 0, 1, 0x65, 1, 0, 0, 1, 0, 0})}) {
        EXPECT_FALSE(is_sendable(zav_shm::codec::h264, unit)) << unit.size();
    }
    EXPECT_FALSE(is_sendable(zav_shm::codec::h265, bytes_of({0, 0, 1, 0x26, 1})));
    EXPECT_FALSE(is_sendable(zav_shm::codec::h265, bytes_of({0, 0, 1, 0x62, 1, 1})));
    EXPECT_FALSE(is_sendable(zav_shm::codec::h265, bytes_of({0, 0, 1, 0x42, 1, 1})));
}

TEST(Jpeg_Header, size_stands_in_the_picture) {
    auto picture = bytes_of({0xFF, 0xD8, 0xFF, 0xC0, 0, 17, 8, 0, 240, 1, 64, 3});
    picture.resize(2 + 2 + 17);
    const auto cut = picture;
    for (const std::byte byte : bytes_of({0xFF, 0xDA, 0, 2})) {
        picture.push_back(byte);
    }
    ASSERT_TRUE(read_jpeg_header(picture));
    EXPECT_EQ(read_jpeg_header(picture)->width, 320U);
    EXPECT_EQ(read_jpeg_header(picture)->height, 240U);
    EXPECT_FALSE(read_jpeg_header(cut));
    for (std::size_t length = 0; length < picture.size(); ++length) {
        EXPECT_FALSE(read_jpeg_header({picture.data(), length})) << length;
    }
}

Unit unit(std::int64_t time_ns, bool is_entry, std::size_t bytes = 10) {
    Unit made;
    made.buffer = Buffer_Reference(gst_buffer_new_allocate(nullptr, bytes, nullptr));
    made.time_ns = time_ns;
    made.is_entry = is_entry;
    return made;
}

class History : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

TEST_F(History, goes_back_to_the_key_frame_before_the_newest) {
    Unit_History history(1000);
    for (int i = 0; i < 12; ++i) {
        history.add(unit(i * second, i % 4 == 0));
    }
    EXPECT_EQ(history.newest_entry(), 9U);
    EXPECT_EQ(history.first(), 5U);
    EXPECT_EQ(history.end(), 13U);
}

TEST_F(History, keeps_two_seconds_where_every_unit_is_an_entry) {
    Unit_History history(100'000);
    for (int i = 0; i < 500; ++i) {
        history.add(unit(i * second / 50, true));
    }
    EXPECT_EQ(history.newest_entry() + 1, history.end());
    EXPECT_NEAR(static_cast<double>(history.end() - history.first()), 100, 3);
}

TEST_F(History, keeps_no_more_than_its_bytes) {
    Unit_History history(100);
    history.add(unit(0, true));
    for (int i = 1; i < 50; ++i) {
        history.add(unit(i, false));
    }
    EXPECT_LE(history.bytes(), 100U);
    EXPECT_EQ(history.newest_entry(), history.end()) << "a client has to wait for the next one";
    history.add(unit(50, true));
    EXPECT_EQ(history.newest_entry() + 1, history.end());
}

TEST_F(History, numbers_go_on_when_it_is_emptied) {
    Unit_History history(100);
    history.add(unit(0, true));
    history.clear();
    EXPECT_EQ(history.newest_entry(), history.end());
    EXPECT_EQ(history.first(), 2U);
    EXPECT_EQ(history.bytes(), 0U);
}

}  // namespace
