// SPDX-License-Identifier: Apache-2.0
//
// `record --trigger`: a file for each event, with what was before it, of real video.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "support/threads.h"
#include "tool/recorded_series.h"

namespace {

using namespace std::chrono_literals;

constexpr long long ns_per_s = 1'000'000'000;

class Tool_Event : public Recorded_Series {
protected:
    Tool_Process start_waiting(const Words& more, const std::string& shell = "exec \"$@\"") {
        Tool_Process recorder = start_series(more, shell);
        recorder.says("waiting for a trigger: ");
        return recorder;
    }

    Tool_Process trigger(const Words& more) {
        Words words{"trigger", "--name", "RECODER"};
        words.insert(words.end(), more.begin(), more.end());
        return start(words);
    }
};

TEST_F(Tool_Event, begins_with_the_last_key_frame_before_the_moment_asked_for) {
    Tool_Process camera = start_camera();
    Tool_Process recorder =
        start_waiting({"--trigger", "SIGUSR1", "--before", "1s", "--after", "500ms", "--strict"});
    std::this_thread::sleep_for(2500ms);
    const long long sent_ns = utc_ns();
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.says("event 1: triggered"));
    const long long seen_ns = utc_ns();
    const auto file = recorder.read_line();
    ASSERT_TRUE(file);
    const Lines lines = expect_whole(*file);
    ASSERT_GT(lines.size(), 60U);
    EXPECT_LE(lines.front().utc_ns, seen_ns - ns_per_s);
    const auto second_key = std::find_if(lines.begin() + 1, lines.end(),
                                         [](const Index_Line& line) { return line.entry == 1; });
    ASSERT_NE(second_key, lines.end());
    EXPECT_GT(second_key->utc_ns, sent_ns - ns_per_s) << "no earlier than it has to";
    EXPECT_GT(lines.back().utc_ns, sent_ns);
    EXPECT_EQ(lines.back().sequence % 30, 0U) << "it ends before a key frame";
    end(recorder);
    EXPECT_EQ(recorder.figure("events"), 1);
    EXPECT_EQ(recorder.figure("files"), 1);
    EXPECT_EQ(files(), std::vector<std::string>{*file});
    end(camera);
}

TEST_F(Tool_Event, goes_on_where_the_former_one_ended_if_it_reaches_back_so_far) {
    Tool_Process camera = start_camera();
    Tool_Process recorder =
        start_waiting({"--trigger", "SIGUSR1", "--before", "2", "--after", "200ms", "--strict"});
    std::this_thread::sleep_for(2500ms);
    unsigned long last = 0;
    for (int event = 1; event <= 3; ++event) {
        recorder.signal(SIGUSR1);
        const auto file = recorder.read_line();
        ASSERT_TRUE(file);
        const Lines lines = expect_whole(*file);
        ASSERT_FALSE(lines.empty());
        if (last != 0) {
            EXPECT_EQ(lines.front().sequence, last + 1) << "nothing lost, and nothing twice";
        }
        last = lines.back().sequence;
        std::this_thread::sleep_for(300ms);
    }
    end(recorder);
    EXPECT_EQ(recorder.figure("events"), 3);
    EXPECT_EQ(recorder.errors().find("the history holds"), std::string::npos) << recorder.errors();
    end(camera);
}

TEST_F(Tool_Event, lasts_longer_with_each_further_trigger) {
    Tool_Process camera = start_camera();
    Tool_Process recorder = start_waiting(
        {"--trigger", "SIGUSR1,USR2", "--before", "0", "--after", "2500ms", "--strict"});
    std::this_thread::sleep_for(700ms);
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.says("event 1: triggered"));
    std::this_thread::sleep_for(2s);
    const long long extended_ns = utc_ns();
    recorder.signal(SIGUSR2);
    const auto file = recorder.read_line();
    ASSERT_TRUE(file);
    const Lines lines = expect_whole(*file);
    EXPECT_GT(lines.back().utc_ns, extended_ns + ns_per_s * 3 / 2);
    EXPECT_TRUE(recorder.says("after the last of 2"));
    end(recorder);
    EXPECT_EQ(recorder.figure("events"), 1);
    end(camera);
}

// While it is on, the name of its pipe goes, and another program makes a file of its name.
TEST_F(Tool_Event, divided_by_sighup_has_names_in_the_order_of_its_files) {
    Tool_Process camera = start_camera();
    Tool_Process recorder =
        start_waiting({"--trigger", "SIGUSR1", "--before", "2s", "--after", "3s", "--strict"});
    std::this_thread::sleep_for(3500ms);
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.says("event 1: triggered"));
    recorder.signal(SIGHUP);
    const auto first = recorder.read_line();
    const auto second = recorder.read_line();
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(recorder.says(" 2 files, the last one \"" + *second + "\""));
    EXPECT_GE(second->substr(0, first->find(".h264")), first->substr(0, first->find(".h264")));
    EXPECT_EQ(expect_whole(*second).front().sequence, expect_whole(*first).back().sequence + 1);
    end(recorder);
    EXPECT_EQ(recorder.figure("events"), 1);
    end(camera);
}

TEST_F(Tool_Event, is_extended_by_the_command_after_its_pipe_was_removed) {
    Tool_Process camera = start_camera();
    Tool_Process recorder = start_waiting({"--trigger", "command,SIGUSR1", "--before", "0",
                                           "--after", "4s", "--pattern", "one.h264", "--strict"});
    std::this_thread::sleep_for(700ms);
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.says("event 1: triggered"));
    const std::filesystem::path rings = "/dev/shm/shm/rings";
    for (const auto& entry : std::filesystem::directory_iterator(rings)) {
        if (entry.path().extension() == ".trigger") {
            std::filesystem::remove(entry.path());
        }
    }
    write(folder() + "/one.h264", "somebody else's");
    EXPECT_TRUE(becomes_true([this] { return trigger({}).status() == 0; }));
    const auto file = recorder.read_line();
    ASSERT_TRUE(file);
    EXPECT_EQ(*file, folder() + "/one-2.h264");
    EXPECT_TRUE(recorder.says(" in \"" + *file + "\""));
    EXPECT_TRUE(recorder.says("after the last of 2"));
    EXPECT_EQ(content(folder() + "/one.h264"), "somebody else's");
    expect_whole(*file);
    end(recorder);
    end(camera);
}

TEST_F(Tool_Event, that_is_on_at_the_end_is_finished) {
    Tool_Process camera = start_camera();
    Tool_Process recorder =
        start_waiting({"--trigger", "SIGUSR1", "--before", "1", "--after", "1h", "--strict"});
    std::this_thread::sleep_for(1700ms);
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.says("event 1: triggered"));
    std::this_thread::sleep_for(300ms);
    end(recorder);
    ASSERT_EQ(files().size(), 1U);
    EXPECT_GT(expect_whole(files().front()).size(), 60U);
    end(camera);
}

// ---- what triggers ----

TEST_F(Tool_Event, is_triggered_by_a_line_on_standard_input) {
    ASSERT_EQ(mkfifo(path("input").c_str(), 0600), 0);
    Tool_Process camera = start_camera();
    Tool_Process writer =
        start({}, "exec >'" + path("input") + "'; sleep 1; echo now; sleep 2; printf 'no line'");
    Tool_Process recorder =
        start_waiting({"--trigger", "stdin", "--before", "500ms", "--after", "100ms"},
                      "exec \"$@\" <'" + path("input") + "'");
    const auto file = recorder.read_line();
    ASSERT_TRUE(file);
    expect_whole(*file);
    EXPECT_TRUE(recorder.says("standard input has ended"));
    EXPECT_EQ(writer.status(), 0);
    end(recorder);
    EXPECT_EQ(recorder.figure("events"), 1);
    end(camera);
}

TEST_F(Tool_Event, is_triggered_by_the_command_which_reaches_all_recorders_of_the_name) {
    Tool_Process camera = start_camera();
    const Words words{"--trigger", "command", "--before", "500ms", "--after", "100ms"};
    Tool_Process one = start_waiting(words);
    Tool_Process other = start_waiting(words);
    Tool_Process elsewhere =
        start({"record", "--name", "RECODER", "--channel", "1", "--pair", "CAM_LOOP", "--directory",
               folder(), "--trigger", "command", "--before", "1", "--after", "1"});
    ASSERT_TRUE(elsewhere.says("waiting for a trigger: zav-shm trigger"));
    std::this_thread::sleep_for(600ms);
    Tool_Process command = trigger({});
    EXPECT_EQ(command.status(), 0) << command.errors();
    EXPECT_EQ(command.output(), "triggered RECODER/0/0: 2 recorders\n");
    for (Tool_Process* recorder : {&one, &other}) {
        const auto file = recorder->read_line();
        ASSERT_TRUE(file);
        expect_whole(*file);
    }
    Tool_Process all = trigger({"--all"});
    EXPECT_EQ(all.status(), 0) << all.errors();
    EXPECT_EQ(all.output(), "triggered RECODER: 3 recorders\n");
    EXPECT_TRUE(elsewhere.says("event 1: triggered"));
    for (Tool_Process* recorder : {&one, &other, &elsewhere}) {
        end(*recorder);
    }
    end(camera);
}

TEST_F(Tool_Event, command_says_when_nobody_waits_and_removes_what_a_killed_recorder_left) {
    Tool_Process camera = start_camera();
    Tool_Process recorder =
        start_waiting({"--trigger", "command", "--before", "1", "--after", "1"});
    recorder.signal(SIGKILL);
    leaves_cards = true;
    EXPECT_EQ(recorder.status(), 128 + SIGKILL);
    Tool_Process command = trigger({});
    EXPECT_EQ(command.status(), input_output);
    EXPECT_TRUE(command.says("no recorder of RECODER/0/0 waits for triggers in "));
    end(camera);  // TearDown refuses a pipe that is left
}

TEST_F(Tool_Event, command_reaches_a_tap_whose_producer_comes_later_without_a_center) {
    center->kill();
    std::filesystem::remove_all("/dev/shm/shm/rings");
    Tool_Process recorder =
        start({"record", "--tap", "--pair", "CAM_LOOP", "--directory", folder(), "--index-each",
               "--trigger", "command", "--before", "500ms", "--after", "100ms"});
    ASSERT_TRUE(recorder.says("waiting for a trigger: zav-shm trigger"));
    ASSERT_TRUE(start_center(tool_configuration));
    Tool_Process camera = start_camera();
    std::this_thread::sleep_for(1500ms);
    Tool_Process command = start({"trigger", "--name", "CAM_LOOP"});
    EXPECT_EQ(command.status(), 0) << command.errors();
    const auto file = recorder.read_line();
    ASSERT_TRUE(file);
    expect_whole(*file);
    end(recorder);
    end(camera);
}

TEST_F(Tool_Event, triggered_without_end_is_recorded_and_a_signal_ends_it) {
    ASSERT_EQ(mkfifo(path("input").c_str(), 0600), 0);
    Tool_Process camera = start_camera();
    Tool_Process writer = start({}, "exec yes >'" + path("input") + "'");
    Tool_Process recorder = start_waiting({"--trigger", "stdin", "--before", "500ms", "--after",
                                           "100ms", "--pattern", "e.h264", "--strict"},
                                          "exec \"$@\" <'" + path("input") + "'");
    ASSERT_TRUE(becomes_true([&] { return index_lines(path("files/e.h264.index")).size() > 120; }));
    end(recorder);
    EXPECT_EQ(recorder.figure("events"), 1);
    expect_whole(path("files/e.h264"));
    writer.status();
    end(camera);
}

// ---- a history that is too short ----

TEST_F(Tool_Event, says_what_the_history_holds_and_what_it_would_have_to_be) {
    const Words words{"--trigger", "SIGUSR1", "--before", "3", "--after", "100ms", "--strict"};
    Tool_Process small = start_camera({"--fps", "60", "--history", "100000"});
    std::this_thread::sleep_for(4s);
    Tool_Process recorder = start_waiting(words);
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.says("event 1: the history holds "));
    ASSERT_TRUE(recorder.says(" before the trigger and not 3.0 s; at the present "));
    ASSERT_TRUE(recorder.read_line());
    end(recorder);
    end(small);
    const std::string text = recorder.errors();
    const std::size_t at = text.find("publish --history ");
    ASSERT_NE(at, std::string::npos) << text;
    const std::string needed = std::to_string(std::atol(text.c_str() + at + 18));
    EXPECT_GT(std::atol(needed.c_str()), 200'000);

    Tool_Process large = start_camera({"--fps", "60", "--history", needed});
    Tool_Process early = start_waiting(words);
    std::this_thread::sleep_for(800ms);
    early.signal(SIGUSR1);
    ASSERT_TRUE(early.says("since its publisher began then"));
    std::this_thread::sleep_for(6s);
    Tool_Process content_one = start_waiting(words);
    content_one.signal(SIGUSR1);
    const auto file = content_one.read_line();
    ASSERT_TRUE(file);
    expect_whole(*file);
    end(content_one);
    EXPECT_EQ(content_one.errors().find("the history holds"), std::string::npos)
        << content_one.errors();
    end(early);
    end(large);
}

// ---- producers that come, go and say nothing ----

TEST_F(Tool_Event, follows_a_producer_that_is_started_again) {
    Tool_Process recorder =
        start_waiting({"--trigger", "SIGUSR1", "--before", "500ms", "--after", "100ms"});
    for (int event = 1; event <= 2; ++event) {
        Tool_Process camera = start_camera();
        std::this_thread::sleep_for(2500ms);
        recorder.signal(SIGUSR1);
        const auto file = recorder.read_line();
        ASSERT_TRUE(file);
        const Lines lines = expect_whole(*file);
        EXPECT_LT(lines.back().sequence, 600U);
        camera.signal(event == 1 ? SIGKILL : SIGTERM);
        camera.status();
    }
    end(recorder);
    EXPECT_EQ(recorder.figure("gaps"), 0) << "not between events";
}

TEST_F(Tool_Event, without_any_frame_ends_and_the_next_one_works) {
    Tool_Process recorder =
        start_waiting({"--trigger", "SIGUSR1", "--before", "1", "--after", "100ms"});
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.says("event 1: no frame was written"));
    EXPECT_TRUE(files().empty());
    Tool_Process camera = start_camera();
    std::this_thread::sleep_for(1500ms);
    recorder.signal(SIGUSR1);
    const auto file = recorder.read_line();
    ASSERT_TRUE(file);
    expect_whole(*file);
    end(recorder);
    end(camera);
}

// ---- a full medium ----

TEST_F(Tool_Event, that_fills_the_medium_ends_whole_and_the_next_one_works_once_there_is_room) {
    ASSERT_EQ(mount("tmpfs", folder().c_str(), "tmpfs", 0, "size=512k"), 0);
    Tool_Process camera = start_camera();
    Tool_Process recorder =
        start_recorder({"--directory", folder(), "--trigger", "SIGUSR1", "--before", "1", "--after",
                        "200ms", "--pattern", "e.h264"});
    Tool_Process filler = start({}, "head -c 480000 /dev/zero >'" + path("files/filler") + "'");
    EXPECT_EQ(filler.status(), 0);
    std::this_thread::sleep_for(2s);
    recorder.signal(SIGUSR1);
    EXPECT_TRUE(recorder.says("No space left on device; the event ends there"));
    ASSERT_TRUE(recorder.says("in \"" + path("files/e.h264")));
    EXPECT_GT(expect_pictures(path("files/e.h264")), 0U);
    std::filesystem::remove(path("files/filler"));
    std::filesystem::remove(path("files/e.h264"));
    recorder.signal(SIGUSR1);
    EXPECT_EQ(recorder.read_line(), path("files/e.h264"));  // of the first one
    EXPECT_EQ(recorder.read_line(), path("files/e.h264"));
    EXPECT_GT(expect_pictures(path("files/e.h264")), 60U);
    recorder.signal(SIGTERM);
    EXPECT_EQ(recorder.status(), input_output);
    EXPECT_TRUE(recorder.says("1 of 2 events could not be written whole"));
    end(camera);
    EXPECT_EQ(umount(folder().c_str()), 0);
}

}  // namespace
