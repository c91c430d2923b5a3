// SPDX-License-Identifier: Apache-2.0
//
// The table of `zav-shm top` without a terminal and without streams.
#include <gtest/gtest.h>

#include <algorithm>

#include "apps/tool/top/screen_line.h"
#include "apps/tool/top/short_figures.h"
#include "apps/tool/top/top_keys.h"
#include "apps/tool/top/top_view.h"

namespace {

using namespace zav_shm::tool;
using namespace zav_shm::watch;

Stream stream(const std::string& producer, double rate) {
    Stream stream;
    stream.id = {producer, 0, 1};
    stream.rates = Stream::Rates{rate, rate * 1e6};
    stream.frames = 5;
    stream.age_ns = 12'000'000;
    return stream;
}

Consumer consumer(const std::string& name, std::uint64_t behind) {
    Consumer consumer;
    consumer.name = name;
    consumer.process = {.pid = 4711, .uid = 0, .command = "player", .is_stopped = false};
    consumer.behind = behind;
    consumer.rates = Consumer::Rates{};
    return consumer;
}

Snapshot two_streams() {
    Snapshot snapshot;
    snapshot.folder = "shm";
    snapshot.streams = {stream("CAM_A", 10), stream("CAM_B", 30)};
    snapshot.streams[0].consumers = {consumer("PLAYER", 3), consumer("RECODER", 9)};
    return snapshot;
}

bool holds(const std::vector<std::string>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(), [&text](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

TEST(Short_Figures, fit_into_six_characters) {
    EXPECT_EQ(short_time(850'000), "850us");
    EXPECT_EQ(short_time(12'000'000), "12ms");
    EXPECT_EQ(short_time(2'500'000'000), "2.50s");
    EXPECT_EQ(short_time(59'900'000'000), "59.9s");
    EXPECT_EQ(short_time(200'000'000'000), "3m20s");
    EXPECT_EQ(short_count(999'999), "999999");
    EXPECT_EQ(short_count(1'234'567), "1235k");
    EXPECT_EQ(short_bytes(512), "512");
    EXPECT_EQ(short_bytes(2'202'009), "2.1M");
    EXPECT_EQ(short_number(4.7921, 3, 7), "4.792");
    EXPECT_EQ(short_number(123456.78, 1, 6), "123457");
    for (std::int64_t ns = 1; ns > 0 && ns < (std::int64_t{1} << 60); ns *= 3) {
        EXPECT_LE(short_time(ns).size(), 6U) << ns;
        EXPECT_LE(short_count(static_cast<std::uint64_t>(ns)).size(), 6U) << ns;
        EXPECT_LE(short_bytes(static_cast<std::uint64_t>(ns)).size(), 6U) << ns;
        EXPECT_LE(short_number(static_cast<double>(ns), 1, 6).size(), 6U) << ns;
    }
}

TEST(Screen_Line, counts_characters_and_not_bytes) {
    EXPECT_EQ(Screen_Line(5, false)
                  .add("K\xc3\xbc"
                       "che und Flur")
                  .text(),
              "K\xc3\xbc"
              "che");
    EXPECT_EQ(Screen_Line(80, false).left("abcdef", 4).add("x").text(), "abc~ x");
    EXPECT_EQ(Screen_Line(80, false).right("abc", 5).add("x").text(), "  abc x");
    EXPECT_EQ(Screen_Line(3, true).add("abcdef", Style::bold).text(), "\x1b[1mabc\x1b[0m");
}

TEST(Top_Table, names_of_others_reach_no_terminal_as_they_are) {
    Snapshot snapshot = two_streams();
    snapshot.folder = "a\x1b]0;";
    snapshot.streams[0].id.producer = "\x1b[2J\n\xff";
    snapshot.streams[0].problem = "\x07 bell";
    snapshot.streams[0].consumers[0].name = "\r\x9b";
    snapshot.streams[0].consumers[1].process.command = "\x1b[31m";
    snapshot.elsewhere = {
        consumer("\x1b"
                 "c",
                 0)};
    Top_View view;
    const std::string table = table_of(snapshot, view);
    EXPECT_TRUE(std::all_of(table.begin(), table.end(), [](char character) {
        return character == '\n' || (character >= ' ' && character <= '~');
    })) << table;
    EXPECT_NE(table.find("\\x1b[2J\\x0a\\xff"), std::string::npos) << table;
}

TEST(Top_Table, screen_is_never_larger_than_it_may_be) {
    Snapshot snapshot = two_streams();
    snapshot.streams[1].id.producer = std::string(60, 'X');
    snapshot.streams[1].consumers = {consumer(std::string(60, 'Y'), 18'000'000'000'000'000'000U)};
    snapshot.streams[1].problem = std::string(300, 'p');
    Top_View view;
    for (const bool has_one : {false, true}) {
        for (const bool has_help : {false, true}) {
            view.shows_one = has_one;
            view.shows_help = has_help;
            view.chosen = snapshot.streams[1].id;
            for (view.width = 1; view.width < 200; view.width += 7) {
                for (view.height = 1; view.height < 50; view.height += 3) {
                    const auto lines = screen_of(snapshot, view);
                    ASSERT_LE(lines.size(), view.height);
                    for (const std::string& line : lines) {
                        ASSERT_LE(characters_in(line), view.width) << line;
                    }
                }
            }
        }
    }
}

TEST(Top_Table, order_puts_first_what_is_asked_for) {
    Top_View view;
    const auto first = [&view] { return streams_of(two_streams(), view).front(); };
    EXPECT_EQ(first().id.producer, "CAM_A");
    view.order = Top_Order::rate;
    EXPECT_EQ(first().id.producer, "CAM_B");
    view.order = Top_Order::behind;
    EXPECT_EQ(first().id.producer, "CAM_A");
    EXPECT_EQ(first().consumers.front().name, "RECODER");
    view.producer = "CAM_B";
    EXPECT_EQ(streams_of(two_streams(), view).size(), 1U);
    EXPECT_FALSE(top_order_named("other"));
    EXPECT_EQ(top_order_named("lost"), Top_Order::lost);
}

TEST(Top_Table, trouble_of_a_consumer_is_told_below_it) {
    Snapshot snapshot = two_streams();
    Consumer& player = snapshot.streams[0].consumers[0];
    player.state = Consumer::State::not_reading;
    player.not_reading_ns = 2'100'000'000;
    player.rates->overtaken = 10;
    player.rates->left_out = 2;
    const auto lines = screen_of(snapshot, {});
    EXPECT_TRUE(holds(lines, "not reading since 2.1 s"));
    EXPECT_TRUE(holds(lines, "overtaken 10.0, left out 2.0"));
    EXPECT_TRUE(holds(lines, "12.0"));
}

TEST(Top_Keys, choose_freeze_and_order) {
    const std::vector<Stream> streams = two_streams().streams;
    Top_View view;
    for (const Top_Key key : keys_in("\x1b[B\x1bOBkf\r")) {
        act_on(key, streams, view);
    }
    EXPECT_EQ(view.chosen->producer, "CAM_A");
    EXPECT_TRUE(view.is_frozen);
    EXPECT_TRUE(view.shows_one);
    for (const Top_Key key : keys_in("s \r\x1b[6~?")) {
        act_on(key, streams, view);
    }
    EXPECT_EQ(view.order, Top_Order::rate);
    EXPECT_FALSE(view.is_frozen);
    EXPECT_FALSE(view.shows_one);
    EXPECT_EQ(view.chosen->producer, "CAM_B");
    EXPECT_TRUE(view.shows_help);
    act_on(Top_Key::by_lost, {}, view);
    EXPECT_EQ(view.order, Top_Order::lost);
    act_on(Top_Key::down, {}, view);
    EXPECT_EQ(keys_in("\x1b[12;34Hq"), (std::vector<Top_Key>{Top_Key::other, Top_Key::quit}));
    EXPECT_EQ(keys_in("\x1b"), (std::vector<Top_Key>{Top_Key::other}));
}

}  // namespace
