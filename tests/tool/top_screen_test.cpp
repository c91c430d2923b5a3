// SPDX-License-Identifier: Apache-2.0
//
// `zav-shm top` on a terminal.
#include <csignal>
#include <fstream>
#include <thread>

#include "support/threads.h"
#include "tool/tmux.h"
#include "tool/tool_process.h"

using namespace std::chrono_literals;

namespace {

class Tool_Top : public Tool {
protected:
    void SetUp() override {
        Tool::SetUp();
        ASSERT_TRUE(start_center(tool_configuration));
        for (const char* name : {"CAM_LOOP", "CAM_REC"}) {
            processes_.push_back(start({"publish", "--synthetic", "--name", name, "--fps", "25",
                                        "--size", "1000", "--history", "200000", "--quiet"}));
        }
        processes_.push_back(start({"record", "--name", "RECODER", "--pair", "CAM_LOOP", "-o",
                                    "/dev/null", "--any-frame", "--quiet"}));
        ASSERT_TRUE(processes_.back().says("connected"));
        tmux_.emplace(path(""));
    }
    void TearDown() override {
        tmux_.reset();
        for (Tool_Process& process : processes_) {
            process.signal(SIGCONT);
            process.signal(SIGTERM);
            process.status();
        }
        processes_.clear();
        Tool::TearDown();
    }

    void start_top(std::vector<std::string> options = {}, const std::string& before = "") {
        options.insert(options.begin(), {ZAV_TEST_TOOL, "top"});
        tmux_->run(options, before);
        ASSERT_TRUE(tmux_->shows("RECODER/0/0"));
    }

    Tool_Process& recorder() { return processes_.back(); }

    // The shell has its terminal back as it was.
    void expect_restored() {
        EXPECT_TRUE(tmux_->hides("zav-shm top  "));
        EXPECT_EQ(tmux_->value("alternate_on"), "0");
        EXPECT_EQ(tmux_->value("cursor_flag"), "1");
        tmux_->run({"stty", "-a"});
        EXPECT_TRUE(tmux_->shows(" icanon"));
        EXPECT_TRUE(tmux_->shows(" echo "));
        EXPECT_TRUE(tmux_->shows("isig "));
    }

    std::vector<Tool_Process> processes_;
    std::optional<Tmux> tmux_;
};

TEST_F(Tool_Top, shows_each_stream_and_below_it_its_consumers) {
    start_top();
    ASSERT_TRUE(tmux_->shows("25."));
    const auto lines = tmux_->lines();
    ASSERT_EQ(lines.size(), 24U);
    EXPECT_EQ(lines[0].rfind("zav-shm top  ", 0), 0U) << lines[0];
    EXPECT_NE(lines[0].find("2 streams  1 consumer "), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1].rfind(" STREAM ", 0), 0U);
    EXPECT_EQ(lines[2].rfind("   CONSUMER ", 0), 0U);
    EXPECT_EQ(lines[3].rfind(" CAM_LOOP/0/0         live ", 0), 0U) << lines[3];
    EXPECT_EQ(lines[4].rfind("   RECODER/0/0        reading ", 0), 0U) << lines[4];
    EXPECT_NE(lines[4].find(std::to_string(recorder().pid())), std::string::npos) << lines[4];
    EXPECT_EQ(lines[5].rfind(" CAM_REC/0/0          live ", 0), 0U) << lines[5];
    EXPECT_NE(lines[23].find("q quit"), std::string::npos) << lines[23];
}

TEST_F(Tool_Top, stopped_consumer_is_seen_by_name_within_two_seconds) {
    start_top();
    recorder().signal(SIGSTOP);
    EXPECT_TRUE(tmux_->shows("RECODER/0/0        stopped", 2000));
    EXPECT_TRUE(tmux_->shows("its process is stopped; not reading since"));
    recorder().signal(SIGCONT);
    EXPECT_TRUE(tmux_->shows("RECODER/0/0        reading"));
    EXPECT_TRUE(tmux_->hides("not reading since"));
}

TEST_F(Tool_Top, follows_the_size_of_its_terminal) {
    start_top();
    for (const auto& [width, height] : {std::pair(120, 40), std::pair(60, 12), std::pair(80, 24)}) {
        tmux_->resize(width, height);
        const std::size_t last = static_cast<std::size_t>(height) - 1;
        EXPECT_TRUE(becomes_true([&] {
            const auto lines = tmux_->lines();
            return lines.size() == last + 1 && lines[last].find("q quit") != std::string::npos &&
                   lines[0].rfind("zav-shm top", 0) == 0;
        })) << tmux_->screen();
    }
}

TEST_F(Tool_Top, picture_that_is_frozen_stays_until_it_is_not) {
    start_top({"--interval", "0.2"});
    tmux_->press("f");
    ASSERT_TRUE(tmux_->shows("FROZEN"));
    const std::string frozen = tmux_->screen();
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(tmux_->screen(), frozen);
    tmux_->press("Space");
    EXPECT_TRUE(tmux_->hides("FROZEN"));
    EXPECT_TRUE(becomes_true([&] { return tmux_->lines()[0] != frozen.substr(0, 80); }));
}

TEST_F(Tool_Top, chosen_stream_is_shown_alone_with_all_that_is_known) {
    start_top();
    tmux_->press("Down");
    ASSERT_TRUE(tmux_->shows(">CAM_LOOP/0/0"));
    tmux_->press("Enter");
    ASSERT_TRUE(tmux_->shows("passed over"));
    EXPECT_TRUE(tmux_->hides("CAM_REC"));
    EXPECT_TRUE(tmux_->shows("key frames   every 25 frames"));
    tmux_->press("Enter");
    ASSERT_TRUE(tmux_->shows("CAM_REC"));
    tmux_->press("j");
    ASSERT_TRUE(tmux_->shows(">CAM_REC/0/0"));
    tmux_->press("h");
    ASSERT_TRUE(tmux_->shows("choose a stream"));
    tmux_->press("h");
    tmux_->press("s");
    EXPECT_TRUE(tmux_->shows("order: rate"));
}

TEST_F(Tool_Top, gives_the_terminal_back_when_it_is_left) {
    for (const char* key : {"q", "C-c", "C-\\"}) {
        start_top();
        EXPECT_EQ(tmux_->value("alternate_on"), "1");
        EXPECT_EQ(tmux_->value("cursor_flag"), "0");
        tmux_->press(key);
        expect_restored();
        tmux_->run({"clear"});
    }
}

TEST_F(Tool_Top, gives_the_terminal_back_when_a_signal_ends_it) {
    const std::string pid_file = path("pid");
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        std::ofstream(pid_file, std::ios::trunc).flush();
        start_top({}, "sh -c 'echo $$ >" + pid_file + "; exec \"$@\"' sh");
        kill(std::stoi(content(pid_file)), number);
        expect_restored();
        tmux_->run({"clear"});
    }
}

TEST_F(Tool_Top, gives_the_terminal_back_while_it_is_suspended) {
    start_top();
    tmux_->press("C-z");
    expect_restored();
    tmux_->run({"fg"});
    EXPECT_TRUE(tmux_->shows("RECODER/0/0"));
    EXPECT_EQ(tmux_->value("alternate_on"), "1");
    tmux_->press("q");
    expect_restored();
}

TEST_F(Tool_Top, colours_can_be_off) {
    const auto has_green = [this] {
        return tmux_->screen(true).find("\x1b[32m") != std::string::npos;
    };
    start_top();
    EXPECT_TRUE(becomes_true(has_green));
    tmux_->press("q");
    expect_restored();
    tmux_->run({"clear"});
    start_top({"--no-colour"});
    EXPECT_FALSE(has_green());
    tmux_->press("q");
    expect_restored();
    tmux_->run({"clear"});
    start_top({}, "NO_COLOR=1");
    EXPECT_FALSE(has_green());
}

TEST_F(Tool_Top, terminal_without_a_size_has_80_columns_and_24_lines) {
    tmux_->resize(100, 30);
    tmux_->run({"stty", "rows", "0", "cols", "0"});
    start_top();
    const auto lines = tmux_->lines();
    EXPECT_NE(lines[23].find("q quit"), std::string::npos) << tmux_->screen();
}

TEST_F(Tool_Top, writes_tables_where_there_is_no_terminal) {
    Tool_Process top = start({"top", "--once", "--interval", "0.5", "--sort", "behind"});
    const std::string table = top.output();
    EXPECT_EQ(top.status(), 0) << top.errors();
    EXPECT_NE(table.find("\n CAM_LOOP/0/0 "), std::string::npos) << table;
    EXPECT_NE(table.find("\n   RECODER/0/0 "), std::string::npos) << table;
    EXPECT_EQ(table.find('\x1b'), std::string::npos);
    Tool_Process one = start({"top", "--once", "--interval", "0.2", "--producer", "CAM_REC"});
    EXPECT_EQ(one.output().find("CAM_LOOP"), std::string::npos);
    EXPECT_EQ(one.status(), 0);
    Tool_Process dumb = start({"top", "--interval", "0.2"});
    EXPECT_TRUE(dumb.read_line());
    dumb.signal(SIGTERM);
    EXPECT_EQ(dumb.status(), 0);
}

}  // namespace
