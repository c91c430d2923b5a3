// SPDX-License-Identifier: Apache-2.0
//
// The parts of the tool that touch nothing outside: rates, pacing, checks of arguments, changes of
// stream, and what is printed.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <limits>

#include "apps/text/duration_text.h"
#include "apps/text/printable.h"
#include "apps/text/reading_start.h"
#include "apps/tool/argument_checks.h"
#include "apps/tool/center_request.h"
#include "apps/tool/json_text.h"
#include "apps/tool/key_request_action.h"
#include "apps/tool/name_lists.h"
#include "apps/tool/pacer.h"
#include "apps/tool/rate.h"
#include "apps/tool/status_file.h"
#include "apps/tool/synthetic_pattern.h"
#include "apps/tool/watch_line.h"

namespace {

using namespace zav_shm;
using namespace zav_shm::tool;
using namespace std::chrono_literals;

// ---- rates ----

TEST(Rate, reads_whole_numbers_decimals_and_fractions) {
    EXPECT_EQ(parse_rate("25"), (Rate{25, 1}));
    EXPECT_EQ(parse_rate("0"), (Rate{0, 1}));
    EXPECT_EQ(parse_rate("1000"), (Rate{1000, 1}));
    EXPECT_EQ(parse_rate("12.5"), (Rate{125, 10}));
    EXPECT_EQ(parse_rate("0.001"), (Rate{1, 1000}));
    EXPECT_EQ(parse_rate("29.97"), (Rate{30000, 1001}));
    EXPECT_EQ(parse_rate("30000/1001"), (Rate{30000, 1001}));
}

TEST(Rate, refuses_everything_else) {
    for (const char* text : {"", "-1", "1001", "1000.5", "abc", "25x", "1/0", "2000/1", "1.", ".5",
                             "1.2345", "1/2/3", "99999999999999999999", "nan", " 25", "+25"}) {
        EXPECT_EQ(parse_rate(text), std::nullopt) << text;
    }
}

TEST(Rate, times_neither_drift_nor_overflow) {
    const Rate rate{30000, 1001};
    EXPECT_EQ(time_of(rate, 0), 0ns);
    EXPECT_EQ(time_of(rate, 1), 33'366'666ns);
    EXPECT_EQ(time_of(rate, 30000), 1001s);
    EXPECT_EQ(time_of(rate, 30'000'000'000), 1'001'000'000s);
    EXPECT_EQ(time_of({0, 1}, 7), 0ns);
}

TEST(Pacer, counts_from_the_first_frame) {
    Pacer pacer({25, 1});
    const Pacer::Clock::time_point begin{100s};
    EXPECT_EQ(pacer.due(0, begin), begin);
    EXPECT_EQ(pacer.due(1, begin + 39ms), begin + 40ms);
    EXPECT_EQ(pacer.due(2, begin + 500ms), begin + 80ms) << "late frames catch up";
    EXPECT_EQ(pacer.due(3, begin + 501ms), begin + 120ms);
}

TEST(Pacer, moves_its_schedule_after_a_long_stop) {
    Pacer pacer({25, 1});
    const Pacer::Clock::time_point begin{100s};
    pacer.due(0, begin);
    EXPECT_EQ(pacer.due(1, begin + 60s), begin + 60s);
    EXPECT_EQ(pacer.due(2, begin + 60s), begin + 60s + 40ms);
}

TEST(Pacer, without_a_rate_lets_all_through) {
    Pacer pacer({0, 1});
    EXPECT_EQ(pacer.due(5, Pacer::Clock::time_point{3s}), Pacer::Clock::time_point{3s});
}

// ---- arguments ----

TEST(Argument_Checks, name_the_value_and_the_limits) {
    EXPECT_EQ(whole_number_mistake("7", 0, 7), "");
    EXPECT_EQ(whole_number_mistake("8", 0, 7), "'8' is no whole number from 0 to 7");
    for (const char* text : {"", "-1", "1.5", "x", "7 ", "0x1", "99999999999999999999999"}) {
        EXPECT_NE(whole_number_mistake(text, 0, 7), "") << text;
    }
    EXPECT_EQ(number_mistake("0.5", 0.1, 2), "");
    EXPECT_EQ(number_mistake("0.05", 0.1, 2), "'0.05' is no number from 0.1 to 2");
    for (const char* text : {"", "nan", "inf", "1e9", "-1", "one"}) {
        EXPECT_NE(number_mistake(text, 0.1, 2), "") << text;
    }
    EXPECT_EQ(name_mistake(std::string(31, 'x')), "");
    EXPECT_NE(name_mistake(std::string(32, 'x')).find("32 characters"), std::string::npos);
    EXPECT_NE(name_mistake(""), "");
    EXPECT_EQ(folder_mistake("shm"), "");
    for (const char* text : {"", ".", "..", "a/b", "/shm"}) {
        EXPECT_NE(folder_mistake(text), "") << text;
    }
}

TEST(Argument_Checks, know_a_file_by_any_of_its_names) {
    const std::string file = ZAV_TEST_STREAMS "/plain.h264";
    EXPECT_TRUE(is_same_file(file, ZAV_TEST_STREAMS "/../streams/plain.h264"));
    EXPECT_FALSE(is_same_file(file, ZAV_TEST_STREAMS "/plain.h265"));
    EXPECT_TRUE(is_same_file("/no/such/file", "/no/such/../such/file"));
    EXPECT_FALSE(is_same_file("/no/such/file", "/no/such/other"));
    EXPECT_FALSE(is_same_file("/dev/null", "/dev/null"));
}

// ---- times and sizes ----

TEST(Duration_Text, is_a_number_with_or_without_a_unit) {
    EXPECT_EQ(parse_duration("10"), 10s);
    EXPECT_EQ(parse_duration("10s"), 10s);
    EXPECT_EQ(parse_duration("0.5s"), 500ms);
    EXPECT_EQ(parse_duration("500ms"), 500ms);
    EXPECT_EQ(parse_duration("2m"), 120s);
    EXPECT_EQ(parse_duration("1.5h"), 5400s);
    EXPECT_EQ(parse_duration("0"), 0s);
    for (const char* text : {"", "s", "-1", "1 s", "1d", "1e99", "nan", "9999h", "1ss", "0x1"}) {
        EXPECT_FALSE(parse_duration(text)) << text;
    }
}

TEST(Size_Text, is_a_whole_number_with_or_without_a_unit) {
    EXPECT_EQ(parse_size("1"), 1U);
    EXPECT_EQ(parse_size("4k"), 4096U);
    EXPECT_EQ(parse_size("10M"), 10U << 20U);
    EXPECT_EQ(parse_size("2G"), std::uint64_t{2} << 30U);
    for (const char* text : {"", "0", "M", "1.5M", "-1", "10T", "10MB", "99999999999999999999"}) {
        EXPECT_FALSE(parse_size(text)) << text;
    }
}

// ---- where to begin ----

TEST(Reading_Start, is_a_word_or_a_number_of_seconds_back) {
    EXPECT_EQ(parse_start("newest-key")->at, Start::At::newest_key);
    EXPECT_EQ(parse_start("live")->at, Start::At::newest);
    EXPECT_EQ(parse_start("newest")->at, Start::At::newest) << "its former name";
    EXPECT_EQ(parse_start("last-key-frame")->at, Start::At::last_key_frame);
    EXPECT_EQ(parse_start("oldest")->at, Start::At::oldest);
    EXPECT_EQ(parse_start("-2.5")->at, Start::At::back);
    EXPECT_EQ(parse_start("-2.5")->span, 2500ms);
    EXPECT_EQ(parse_start("-10s")->span, 10s);
    EXPECT_EQ(parse_start("-0")->span, 0ms);
    for (const char* text : {"", "2.5", "-", "--1", "-x", "-1e99", "Newest", "last_key_frame"}) {
        EXPECT_NE(start_mistake(text), "") << text;
    }
}

// ---- what a request for a key frame sets off ----

TEST(Key_Request_Action, is_a_signal_or_a_descriptor) {
    const auto signal = parse_key_request_action("signal:1234:USR1");
    ASSERT_TRUE(signal);
    EXPECT_EQ(signal->kind, Key_Request_Action::Kind::signal);
    EXPECT_EQ(signal->process, 1234);
    EXPECT_EQ(signal->signal, SIGUSR1);
    EXPECT_EQ(parse_key_request_action("signal:2:SIGHUP")->signal, SIGHUP);
    EXPECT_EQ(parse_key_request_action("fd:3")->descriptor, 3);
    EXPECT_EQ(key_request_action_mistake("fd:2"), "");
    EXPECT_EQ(key_request_action_mistake("fd:987"), "descriptor 987 is not open for writing");
    for (const char* text :
         {"", "signal", "signal:", "signal:USR1", "signal:1:USR1", "signal:0:USR1",
          "signal:-5:USR1", "signal:12:NONE", "signal:12:", "signal::USR1", "fd:", "fd:-1", "fd:x",
          "signal:99999999999:USR1", "exec:reboot"}) {
        EXPECT_NE(key_request_action_mistake(text).find("is neither signal:PID:NAME"),
                  std::string::npos)
            << text;
    }
}

TEST(Key_Request_Action, that_cannot_be_carried_out_says_why) {
    EXPECT_EQ(carry_out({}), "");
    const auto gone = carry_out({.kind = Key_Request_Action::Kind::signal,
                                 .process = std::numeric_limits<pid_t>::max(),
                                 .signal = SIGUSR1});
    EXPECT_NE(gone.find("cannot tell process 2147483647: No such process"), std::string::npos)
        << gone;
}

// ---- pattern ----

TEST(Synthetic_Pattern, is_known_by_its_sequence_number) {
    std::vector<std::byte> payload(1001);
    fill_synthetic(payload, 7);
    EXPECT_TRUE(is_synthetic(payload, 7));
    EXPECT_FALSE(is_synthetic(payload, 8));
    payload[1000] ^= std::byte{1};
    EXPECT_FALSE(is_synthetic(payload, 7));
    EXPECT_TRUE(is_synthetic({}, 7));
}

// ---- the center's answers ----

TEST(Center_Request, problem_names_the_channel_once_and_the_time_that_was_given) {
    const auto text_of = [](const Opened& opened) {
        return problem_of(opened, "CAM_LOOP/0/0", 2s)->text;
    };
    EXPECT_EQ(text_of({.reason = "CAM_LOOP/0/0: Can't Find Channel 0", .refused = true}),
              "the center refuses CAM_LOOP/0/0: Can't Find Channel 0");
    EXPECT_EQ(text_of({.reason = "32- and 64-bit processes", .refused = true}),
              "32- and 64-bit processes");
    EXPECT_EQ(
        text_of({.reason = "no answer from the center within 19 ms"}),
        "no center within 2.0 s: no answer from the center; start zav-shm-centerd, or give it "
        "more time with --wait");
    EXPECT_FALSE(problem_of({.state = Frame_State::connected, .reason = {}}, "CAM_LOOP/0/0", 2s));
}

// ---- what is printed ----

TEST(Printable, shows_text_and_escapes_what_steers_terminals) {
    EXPECT_EQ(printable("CAM_LOOP/0/1 caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA5"),
              "CAM_LOOP/0/1 caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA5");
    EXPECT_EQ(printable("a\x1B[2Jb\nc\x7F"), "a\\x1b[2Jb\\x0ac\\x7f");
    EXPECT_EQ(printable(std::string("\0", 1)), "\\x00");
    EXPECT_EQ(printable("\xC2\x9B"
                        "31m"),
              "\\xc2\\x9b31m")
        << "a control character of two bytes";
    // Cut, overlong, a surrogate, beyond the last character, a byte in mid-character.
    for (const char* text : {"\xC3", "\xE2\x82", "\xC0\xAF", "\xE0\x80\x80", "\xF0\x80\x80\x80",
                             "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xFF"}) {
        EXPECT_EQ(printable(text).find_first_not_of("\\x0123456789abcdef"), std::string::npos);
        EXPECT_EQ(printable(text).size(), 4 * std::string(text).size());
    }
}

Subscriber_Counters some_counters() {
    Subscriber_Counters counters;
    counters.frames = 130;
    counters.bytes = 2'250'000;
    counters.overtaken = 4;
    counters.left_out = 1;
    counters.torn = 1;
    counters.last_key_frame_ns = 9'500'000'000;
    for (int i = 0; i < 30; ++i) {
        counters.latency.add(100'000);
    }
    return counters;
}

TEST(Watch_Line, shows_the_stretch_and_the_totals) {
    Subscriber_Counters before;
    before.frames = 100;
    before.bytes = 1'000'000;
    before.overtaken = 3;
    const Watch_Sample sample =
        sample_of(before, some_counters(), 1s, 10'000'000'000, Frame_State::connected);
    const Json::Value line = parsed_json(json_of(sample));
    EXPECT_EQ(line["frames"], 30);
    EXPECT_EQ(line["frames_per_s"].asDouble(), 30);
    EXPECT_EQ(line["mbit_per_s"].asDouble(), 10);
    EXPECT_EQ(line["lost"], 2);
    EXPECT_EQ(line["lost_total"], 5);
    EXPECT_EQ(line["torn_total"], 1);
    EXPECT_EQ(line["key_frame_age_s"].asDouble(), 0.5);
    EXPECT_EQ(line["state"], "connected");
    EXPECT_GE(line["latency_p50_us"].asDouble(), 100);
    EXPECT_LE(line["latency_p99_us"].asDouble(), 125);
    const std::string text = text_of(sample);
    EXPECT_NE(text.find("30.0 frames/s"), std::string::npos) << text;
    EXPECT_NE(text.find("lost 2 (total 5)"), std::string::npos) << text;
    EXPECT_NE(text.find("key frame 0.5 s ago"), std::string::npos) << text;
}

TEST(Watch_Line, shows_a_recovery_point_beside_the_key_frame) {
    Watch_Sample sample = sample_of({}, {}, 1s, 1, Frame_State::connected);
    EXPECT_TRUE(parsed_json(json_of(sample))["recovery_point_age_s"].isNull());
    sample.recovery_point_age_s = 0.5;
    EXPECT_EQ(parsed_json(json_of(sample))["recovery_point_age_s"].asDouble(), 0.5);
    EXPECT_NE(text_of(sample).find("key frame none yet, recovery point 0.5 s ago"),
              std::string::npos);
}

TEST(Watch_Line, before_the_first_frame_has_no_key_frame) {
    const Watch_Sample sample = sample_of({}, {}, 1s, 1, Frame_State::waiting_for_producer);
    EXPECT_TRUE(parsed_json(json_of(sample))["key_frame_age_s"].isNull());
    EXPECT_NE(text_of(sample).find("none yet"), std::string::npos);
}

TEST(Json_Text, of_any_origin_reads_as_something) {
    EXPECT_TRUE(parsed_json("").isNull());
    EXPECT_TRUE(parsed_json("{").isNull());
    EXPECT_TRUE(parsed_json(std::string(100'000, '[')).isNull());
    const Json::Value object = parsed_json(R"({"a":"x","b":-1,"c":7,"d":"7","e":1})");
    EXPECT_EQ(text_at(object, "a"), "x");
    EXPECT_EQ(text_at(object, "b"), "");
    EXPECT_EQ(count_at(object, "b"), 0U);
    EXPECT_EQ(count_at(object, "c"), 7U);
    EXPECT_EQ(count_at(object, "d"), 0U);
    EXPECT_FALSE(flag_at(object, "e"));
    EXPECT_EQ(text_at(parsed_json("[1]"), "a"), "");
    EXPECT_TRUE(list_at(object, "a").empty());
}

TEST(Status_Table, has_a_row_for_each_consumer) {
    Center_Status status;
    status.is_alive = true;
    status.content = parsed_json(R"({"pid": 42, "version": "0.1.0", "configuration": "a.json",
        "kick_idle": true, "started_utc": "2026-01-01T00:00:00Z", "channels": [
        {"name": "CAM_LOOP", "channel": 0, "stream": 1, "cycles": 900, "frames": 300,
         "presence_timeouts": 4, "frame_timeouts": 5, "read_timeouts": 6, "live": 2, "consumers": [
            {"name": "PLAYER", "channel": 0, "stream": 1, "frames": 299, "missed_in_row": 0},
            {"name": "RECODER", "channel": 0, "stream": 1, "frames": 298, "missed_in_row": 3}]},
        {"name": "CAM_REC", "channel": 0, "stream": 0, "consumers": []}]})");
    EXPECT_EQ(table_of(status),
              "center 0.1.0, process 42, since 2026-01-01T00:00:00Z\n"
              "configuration a.json, idle consumers are kicked\n"
              "\n"
              "channel       frames  cycles  absent  no frame  unread  live  consumer     frames  "
              "missed in row\n"
              "CAM_LOOP/0/1     300     900       4         5       6     2  PLAYER/0/1      299  "
              "            0\n"
              "                                                              RECODER/0/1     298  "
              "            3\n"
              "CAM_REC/0/0        0       0       0         0       0     0  -\n");
}

TEST(Status_Table, has_a_row_for_each_reader_of_a_history) {
    Center_Status status;
    status.content = parsed_json(R"({"ring_consumers": [
        {"consumer": "RECODER", "producer": "CAM_LOOP", "channel": 0, "stream": 1, "pid": 77,
         "behind": 3, "received": 250, "lost": 6, "overtaken": 4, "left_out": 2, "no_memory": 0,
         "dropped": 1, "skipped": 9},
        {"consumer": "", "producer": "CAM_LOOP", "channel": 0, "stream": 0, "pid": 78,
         "behind": null}]})");
    const std::string table = table_of(status);
    EXPECT_NE(table.find("reader       process  of            behind  received  lost  overtaken  "
                         "left out  no memory  dropped  skipped\n"
                         "RECODER/0/1       77  CAM_LOOP/0/1       3       250     6          4  "
                         "       2          0        1        9\n"
                         "(tap)             78  CAM_LOOP/0/0       -         -     -          -  "
                         "       -          -        -        -\n"),
              std::string::npos)
        << table;
}

TEST(Name_Lists, know_readers_of_histories_once_each) {
    const auto names = names_of(parsed_json(R"({"names": {
        "distributors": [{"name": "CAM_LOOP"}], "receivers": [{"name": "RECODER"}]},
        "ring_consumers": [
            {"consumer": "RECODER", "producer": "CAM_LOOP", "channel": 0, "stream": 1, "pid": 1},
            {"consumer": "RECODER", "producer": "CAM_LOOP", "channel": 0, "stream": 1, "pid": 2},
            {"consumer": "", "producer": "CAM_LOOP", "channel": 0, "stream": 1, "pid": 3}]})"));
    ASSERT_TRUE(names);
    EXPECT_EQ((*names)["producers"][0]["feeds"].size(), 1U);
    EXPECT_EQ((*names)["producers"][0]["feeds"][0]["name"], "RECODER");
    EXPECT_EQ((*names)["consumers"][0]["fed"].size(), 1U);
    EXPECT_EQ((*names)["consumers"][0]["fed"][0]["stream"].asInt(), 1);
}

TEST(Status_Table, of_a_file_with_other_content_is_harmless) {
    for (const char* text : {"{}", R"({"channels":5,"pid":"x","kick_idle":[]})",
                             R"({"channels":[1,null,[],{"consumers":[3]}]})",
                             R"({"ring_consumers":[1,null,[],{"consumer":7,"pid":-1}]})"}) {
        Center_Status status;
        status.content = parsed_json(text);
        EXPECT_NE(table_of(status), "") << text;
        EXPECT_TRUE(parsed_json(json_of(status, "there/is/none")).isObject()) << text;
    }
}

TEST(Name_Lists, of_a_file_with_other_content_are_harmless) {
    EXPECT_EQ(names_of(parsed_json("[]")), std::nullopt);
    EXPECT_EQ(names_of(parsed_json(R"({"names":[]})")), std::nullopt);
    for (
        const char* text :
        {R"({"names":{}})", R"({"names":{"distributors":5,"receivers":[1,null,[]]},"channels":3})",
         R"({"names":{"distributors":[{"streams":[7,{}],"name":9}]},"channels":[4,{"name":""}]})"}) {
        const auto names = names_of(parsed_json(text));
        ASSERT_TRUE(names) << text;
        EXPECT_NE(text_of_names(*names), "") << text;
    }
}

TEST(Status_File, that_is_missing_or_damaged_is_told_apart) {
    const auto missing = read_center_status("/dev/shm/no_such_folder/center_status.json");
    EXPECT_EQ(std::get<Problem>(missing).status, Exit_Status::no_center);
    const auto folder = read_center_status("/dev");
    EXPECT_EQ(std::get<Problem>(folder).status, Exit_Status::input_output);
    EXPECT_EQ(std::get<Problem>(read_center_status("/dev/null")).status, Exit_Status::input_output);
    EXPECT_EQ(std::get<Problem>(read_center_status(ZAV_TEST_STREAMS "/plain.h264")).status,
              Exit_Status::input_output);
}

}  // namespace
