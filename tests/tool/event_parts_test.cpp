// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "apps/tool/event_history.h"
#include "apps/tool/file_name_pattern.h"
#include "apps/tool/trigger_source.h"

namespace {

using namespace std::chrono_literals;
using namespace zav_shm::tool;

constexpr std::int64_t s = 1'000'000'000;

// ---- names ----

TEST(File_Name_Pattern, makes_names_from_times) {
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(name_from("e-%Y%m%d-%H%M%S.h264", 86'461 * s), "e-19700102-000101.h264");
    EXPECT_EQ(name_from("plain", 0), "plain");
    EXPECT_EQ(numbered("a.b.h264", 2), "a.b-2.h264");
    EXPECT_EQ(numbered("plain", 3), "plain-3");
    EXPECT_EQ(numbered(".hidden", 3), ".hidden-3");
}

TEST(File_Name_Pattern, refuses_what_makes_no_name_in_the_folder) {
    EXPECT_EQ(pattern_mistake("event-%H.h264"), "");
    for (const char* pattern : {"", "a/b", "%D", ".", "..", "%%/"}) {
        EXPECT_NE(pattern_mistake(pattern), "") << pattern;
    }
    EXPECT_NE(pattern_mistake(std::string(201, 'x')), "");
}

// ---- triggers ----

TEST(Trigger_Source, knows_its_words) {
    Trigger_Options options;
    EXPECT_FALSE(options.any());
    for (const char* word : {"SIGUSR1", "USR2", "stdin", "command"}) {
        EXPECT_EQ(Trigger_Source::mistake(word), "");
        Trigger_Source::add(word, options);
    }
    EXPECT_EQ(options.signals.size(), 2U);
    EXPECT_TRUE(options.lines && options.commands);
    for (const char* word : {"", "SIGKILL", "SIGTERM", "HUP", "STDIN", "1"}) {
        EXPECT_NE(Trigger_Source::mistake(word), "") << word;
    }
}

// ---- how long a history is ----

class Event_History_Of : public testing::Test {
protected:
    // Frames of 2000 bytes ten times a second with a key frame each second, from this moment on,
    // and one behind the trigger at 100 s.
    void note_from(std::int64_t first_s, std::uint64_t first_number) {
        zav_shm::Frame_Facts frame;
        frame.verified = true;
        frame.received_ns = 200 * s;
        frame.number = first_number;
        frame.header.payload_length = 2000;
        for (std::int64_t i = 0; i <= (100 - first_s) * 10 + 1; ++i) {
            frame.header.publish_ns = first_s * s + i * s / 10;
            frame.header.flags = i % 10 == 0 ? zav_shm::frame_flag::key_frame : std::uint16_t{0};
            history.note(frame);
            ++frame.number;
        }
    }

    Event_History history{100 * s, 10s};
};

TEST_F(Event_History_Of, enough_frames_says_nothing) {
    note_from(90, 55);
    EXPECT_TRUE(history.is_known());
    EXPECT_EQ(history.reach(), 10s);
    EXPECT_EQ(history.shortfall(), "");
}

TEST_F(Event_History_Of, too_few_frames_tells_the_bytes_for_the_time_and_a_key_interval) {
    note_from(96, 55);
    EXPECT_EQ(history.reach(), 4s);
    // 41 records of 2176 bytes in 4 s, for 11 s and a tenth more, in units of 64 KiB.
    EXPECT_EQ(history.bytes_needed(), 5U * 65'536U);
    EXPECT_NE(history.shortfall().find("the history holds 4.0 s before the trigger and not 10.0 s"),
              std::string::npos);
    EXPECT_NE(history.shortfall().find("\"history_bytes\": 327680"), std::string::npos)
        << history.shortfall();
}

TEST_F(Event_History_Of, a_young_publisher_is_not_called_too_short) {
    note_from(97, 1);
    EXPECT_NE(history.shortfall().find("since its publisher began then"), std::string::npos);
}

TEST_F(Event_History_Of, no_frame_or_one_gives_no_figure) {
    EXPECT_EQ(history.shortfall(), "");
    EXPECT_EQ(history.bytes_needed(), std::nullopt);
    note_from(100, 55);
    EXPECT_NE(history.shortfall().find("raise history_bytes"), std::string::npos)
        << history.shortfall();
}

}  // namespace
