// SPDX-License-Identifier: Apache-2.0
//
// What the tool says of command lines that it cannot follow, and without a center.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "support/threads.h"
#include "tool/tool_process.h"

namespace {

using Words = std::vector<std::string>;

class Tool_Usage : public Tool {
protected:
    // Neither a center nor time is needed to see a mistake.
    void expect_mistake(const Words& arguments, const std::string& complaint) {
        const Stopwatch watch;
        Tool_Process tool = start(arguments);
        EXPECT_EQ(tool.output(), "");
        EXPECT_EQ(tool.status(), usage);
        const std::string errors = tool.errors();
        EXPECT_EQ(errors.rfind("zav-shm: ", 0), 0U) << errors;
        EXPECT_NE(errors.find(complaint), std::string::npos) << errors;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_LT(watch.elapsed(), std::chrono::seconds(4));
    }

    void expect_publish_mistake(const Words& more, const std::string& complaint) {
        Words words{"publish", "--name", "CAM_LOOP"};
        words.insert(words.end(), more.begin(), more.end());
        expect_mistake(words, complaint);
    }

    void expect_record_mistake(const Words& more, const std::string& complaint) {
        Words words{"record", "--name", "RECODER", "--pair", "CAM_LOOP"};
        words.insert(words.end(), more.begin(), more.end());
        expect_mistake(words, complaint);
    }
};

TEST_F(Tool_Usage, help_and_version_need_nothing) {
    for (const Words& arguments :
         {Words{"--help"}, Words{"publish", "--help"}, Words{"record", "--help"},
          Words{"watch", "--help"}, Words{"status", "--help"}, Words{"pair", "--help"},
          Words{"kick", "--help"}, Words{"query", "--help"}, Words{"names", "--help"}}) {
        Tool_Process tool = start(arguments);
        EXPECT_NE(tool.output().find("Exit status"), std::string::npos) << arguments[0];
        EXPECT_EQ(tool.status(), 0);
        EXPECT_EQ(tool.errors(), "");
    }
    Tool_Process tool = start({"--version"});
    EXPECT_EQ(tool.output().rfind("zav-shm ", 0), 0U);
    EXPECT_EQ(tool.status(), 0);
}

TEST_F(Tool_Usage, a_command_that_does_not_exist_or_is_missing_is_a_mistake) {
    expect_mistake({}, "subcommand is required");
    expect_mistake({"fly"}, "'fly' is no command");
    expect_mistake({"--fly", "status"}, "--fly");
    expect_mistake({"status", "--fly"}, "--fly");
    expect_mistake({"status", "too", "much"}, "too");
}

TEST_F(Tool_Usage, publish_names_what_is_wrong) {
    expect_mistake({"publish", "x.h264"}, "--name is required");
    expect_publish_mistake({}, "either FILE or --synthetic");
    expect_publish_mistake({"x.h264", "--synthetic"}, "either FILE or --synthetic");
    expect_publish_mistake({"x", "--channel", "4096"}, "'4096' is no whole number from 0 to 4095");
    expect_publish_mistake({"x", "--channel", "-1"}, "--channel");
    expect_publish_mistake({"x", "--stream", "one"}, "'one' is no whole number from 0 to 4095");
    expect_publish_mistake({"x", "--fps", "2000"}, "'2000' is no rate from 0 to 1000");
    expect_publish_mistake({"x", "--codec", "vp8"},
                           "'vp8' is none of h264, h265, aac, opus and auto");
    expect_publish_mistake({"-", "--loop"}, "standard input cannot begin again");
    expect_publish_mistake({"x", "--size", "5"}, "--synthetic");
    expect_publish_mistake({"--synthetic", "--loop"}, "--loop does not go with --synthetic");
    expect_publish_mistake({"--synthetic", "--key-interval", "0"}, "from 1 to 1000000");
    expect_publish_mistake({"x", "--unit-limit", "2147483520"}, "from 1 to 2147483519");
    expect_publish_mistake({"x", "--width", "70000"}, "from 1 to 65535");
    expect_publish_mistake({"x", "--wait", "soon"}, "'soon' is no number from 0 to 31536000");
    expect_publish_mistake({"x", "--history", "4294967296"}, "from 1 to 4294967295");
    expect_publish_mistake({"x", "--pace-limit", "61"}, "'61' is no number from 0 to 60");
    expect_publish_mistake({"x", "--on-key-request", "fd:99"}, "descriptor 99 is not open");
    expect_publish_mistake({"x", "--on-key-request", "signal:1:KILL"},
                           "is neither signal:PID:NAME");
    expect_publish_mistake({"x", "--count", "0"}, "from 1 to 1000000000000");
    expect_mistake({"publish", "x", "--name", std::string(32, 'N')}, "has 32 characters");
    expect_mistake({"publish", "x", "--name", ""}, "the name is empty");
}

TEST_F(Tool_Usage, an_index_in_place_of_the_stream_is_a_mistake) {
    write(path("in"), "precious");
    ASSERT_EQ(link(path("in").c_str(), path("linked").c_str()), 0);
    for (const char* index : {"in", "./in", "linked"}) {
        expect_publish_mistake({path("in"), "--index", path(index)},
                               "is the file that is published");
    }
    EXPECT_EQ(content(path("in")), "precious");
}

TEST_F(Tool_Usage, record_and_watch_name_what_is_wrong) {
    expect_mistake({"record", "--name", "A", "-o", "x"}, "--pair is required");
    expect_record_mistake({}, "record needs either --output or --directory");
    expect_record_mistake({"-o", ""}, "the name is empty");
    expect_record_mistake({"-o", "x", "--frames", "many"}, "'many' is no whole number from 1");
    expect_record_mistake({"-o", "x", "--duration", "0"}, "'0' is no number from 0.001");
    expect_record_mistake({"-o", "x", "--streams", "0,1"}, "--switch-every");
    expect_record_mistake({"-o", "x", "--switch-every", "2"}, "--streams");
    expect_record_mistake({"-o", "x", "--streams", "0,0", "--switch-every", "2"},
                          "two different numbers");
    expect_record_mistake({"-o", "x", "--streams", "0,1,2", "--switch-every", "2"},
                          "two different numbers");
    expect_record_mistake({"-o", "x", "--streams", "0,x", "--switch-every", "2"}, "'x'");
    expect_record_mistake({"-o", "x", "--stream", "0", "--streams", "0,1", "--switch-every", "2"},
                          "--stream");
    expect_record_mistake({"-o", "-", "--index", "-"}, "standard output carries the frames");
    expect_record_mistake({"-o", path("x"), "--index", path("./x")},
                          "is the file that is recorded to");
    expect_mistake({"watch", "--name", "A", "--pair", "B", "--count", "x"}, "'x' is no whole");
    expect_mistake({"watch", "--pair", "B"}, "--name is required, or --tap");
    expect_record_mistake({"-o", "x", "--tap"}, "--tap");
    expect_record_mistake({"-o", "x", "--folder", "other"}, "--tap");
    expect_record_mistake({"-o", "x", "--from", "yesterday"}, "'yesterday' is none of newest");
    expect_record_mistake({"-o", "x", "--switch-at-once"}, "--streams");
}

TEST_F(Tool_Usage, the_control_commands_name_what_is_wrong) {
    expect_mistake({"kick"}, "SETTING is required");
    expect_mistake({"kick", "maybe"}, "'maybe' is neither on nor off");
    expect_mistake({"query", "--type", "receiver", "--name", "A"},
                   "'receiver' is neither Distributor nor Receiver");
    expect_mistake({"status", "--folder", "../etc"}, "no name of a folder below /dev/shm");
    expect_mistake({"pair", "--name", "A"}, "--pair is required");
    expect_mistake({"pair", "--name", "A", "--pair", "B", "--all", "--channel", "0"}, "--all");
}

// ---- without a center ----

TEST_F(Tool_Usage, without_a_center_every_command_ends_within_the_wait) {
    const std::string file = stream("plain.h264");
    for (const Words& arguments :
         {Words{"publish", file, "--name", "CAM_LOOP"},
          Words{"publish", "--synthetic", "--name", "CAM_LOOP"},
          Words{"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o", path("out")},
          Words{"watch", "--name", "PLAYER", "--pair", "CAM_LOOP"},
          Words{"pair", "--name", "PLAYER", "--pair", "CAM_LOOP"}, Words{"kick", "on"},
          Words{"query", "--type", "Receiver", "--name", "PLAYER"},
          Words{"status", "--ask-center"}}) {
        Words words = arguments;
        words.insert(words.end(), {"--wait", "0.3"});
        const Stopwatch watch;
        Tool_Process tool = start(words);
        EXPECT_EQ(tool.status(), no_center) << arguments[0];
        EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(200));
        EXPECT_LT(watch.elapsed(), std::chrono::seconds(5));
        EXPECT_NE(tool.errors().find("zav-shm: no center within 0.3 s"), std::string::npos)
            << tool.errors();
    }
}

TEST_F(Tool_Usage, waiting_for_a_center_ends_at_a_signal) {
    for (const bool is_there : {false, true}) {  // none at all, or one that stands still
        if (is_there) {
            ASSERT_TRUE(start_center(tool_configuration));
            center->signal(SIGSTOP);
        }
        for (const Words& arguments :
             {Words{"publish", "--synthetic", "--name", "CAM_LOOP"},
              Words{"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o", path("out")},
              Words{"watch", "--name", "PLAYER", "--pair", "CAM_LOOP"}, Words{"kick", "on"},
              Words{"query", "--type", "Receiver", "--name", "PLAYER"}}) {
            Words words = arguments;
            words.insert(words.end(), {"--wait", "60"});
            Tool_Process tool = start(words);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            const Stopwatch watch;
            tool.signal(SIGTERM);
            const bool has_frames =
                words[0] == "publish" || words[0] == "record" || words[0] == "watch";
            EXPECT_EQ(tool.status(), has_frames ? no_center : 128 + SIGTERM) << words[0];
            EXPECT_LT(watch.elapsed(), std::chrono::seconds(5)) << words[0];
        }
    }
    center->signal(SIGCONT);
}

TEST_F(Tool_Usage, a_center_that_stands_still_does_not_answer_within_the_wait) {
    ASSERT_TRUE(start_center(tool_configuration));
    center->signal(SIGSTOP);
    for (const Words& arguments : {Words{"query", "--type", "Receiver", "--name", "PLAYER"},
                                   Words{"publish", "--synthetic", "--name", "CAM_LOOP"}}) {
        Words words = arguments;
        words.insert(words.end(), {"--wait", "0.5"});
        Tool_Process tool = start(words);
        EXPECT_EQ(tool.status(), no_center);
        EXPECT_TRUE(tool.says("no center within 0.5 s: no answer from the center; start"));
    }
    center->signal(SIGCONT);
}

TEST_F(Tool_Usage, a_killed_center_counts_as_none) {
    ASSERT_TRUE(start_center(tool_configuration));
    center->kill();
    Tool_Process tool = start({"query", "--type", "Receiver", "--name", "PLAYER", "--wait", "0.5"});
    EXPECT_EQ(tool.status(), no_center);
}

// ---- input that is none ----

TEST_F(Tool_Usage, a_file_that_is_no_elementary_stream_is_named) {
    write(path("empty"), "");
    write(path("text"), std::string(5000, 'x'));
    write(path("movie"), std::string("\0\0\0\x20"
                                     "ftypisom\0\0\1",
                                     15));
    write(path("unclear"), std::string("\0\0\1\x41\x9A\0\0\1\x41\x9A", 10));
    for (const auto& [file, complaint] :
         {std::pair{"empty", "is empty"}, std::pair{"text", "no start code in its 5000 bytes"},
          std::pair{"movie", "looks like a file of the container MP4"},
          std::pair{"unclear", "say which with --codec"},
          std::pair{"missing", "No such file or directory"}}) {
        Tool_Process tool = start({"publish", path(file), "--name", "CAM_LOOP"});
        EXPECT_EQ(tool.status(), input_output) << file;
        EXPECT_NE(tool.errors().find(complaint), std::string::npos) << tool.errors();
        EXPECT_NE(tool.errors().find("\"" + path(file) + "\""), std::string::npos);
    }
}

TEST_F(Tool_Usage, an_earlier_recording_survives_one_that_does_not_come_about) {
    write(path("out"), "precious");
    write(path("index"), "likewise");
    for (const Words& words :
         {Words{"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o", path("out"), "--index",
                path("index")},
          Words{"publish", "--synthetic", "--name", "CAM_LOOP", "--index", path("index")}}) {
        Words all = words;
        all.insert(all.end(), {"--wait", "0.1"});
        Tool_Process tool = start(all);
        EXPECT_EQ(tool.status(), no_center);
        EXPECT_EQ(content(path("out")), "precious");
        EXPECT_EQ(content(path("index")), "likewise");
    }
}

TEST_F(Tool_Usage, an_output_that_cannot_be_opened_is_named) {
    Tool_Process tool = start(
        {"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o", path("no_folder") + "/out"});
    EXPECT_EQ(tool.status(), input_output);
    EXPECT_NE(tool.errors().find("no_folder/out\": No such file"), std::string::npos);
}

}  // namespace
