// SPDX-License-Identifier: Apache-2.0
#include "apps/log/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace zav_shm;

// Has standard error in a file of its own.
class Log : public testing::Test {
protected:
    void SetUp() override {
        std::fflush(stderr);
        former_ = dup(STDERR_FILENO);
        dup2(fileno(file_), STDERR_FILENO);
    }
    void TearDown() override {
        unsetenv("JOURNAL_STREAM");
        open_log("test");
        dup2(former_, STDERR_FILENO);
        close(former_);
        std::fclose(file_);
    }

    std::string written() const {
        std::string text(1U << 20U, '\0');
        const ssize_t count = pread(fileno(file_), text.data(), text.size(), 0);
        text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return text;
    }
    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        const std::string text = written();
        for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
            all.push_back(text.substr(at, text.find('\n', at) - at));
        }
        return all;
    }
    std::string name_of_standard_error() const {
        struct stat status {};
        fstat(STDERR_FILENO, &status);
        return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    }

private:
    std::FILE* const file_ = std::tmpfile();
    int former_ = -1;
};

TEST_F(Log, line_begins_with_program_and_object) {
    open_log("zav-shm-test");
    write_log(Log_Level::warning, "CAM_LOOP/0/1", "a reader is refused");
    EXPECT_EQ(written(), "zav-shm-test: CAM_LOOP/0/1: a reader is refused\n");
}

TEST_F(Log, levels_leave_out_what_matters_less) {
    open_log("test", Log_Level::warning);
    write_log(Log_Level::error, "A", "error");
    write_log(Log_Level::warning, "A", "warning");
    write_log(Log_Level::notice, "A", "notice");
    write_log(Log_Level::debug, "A", "debug");
    EXPECT_EQ(written(), "test: A: error\ntest: A: warning\n");
    EXPECT_TRUE(is_logged(Log_Level::error));
    EXPECT_FALSE(is_logged(Log_Level::info));
}

TEST_F(Log, names_of_levels) {
    EXPECT_EQ(log_level_of("error"), Log_Level::error);
    EXPECT_EQ(log_level_of("debug"), Log_Level::debug);
    for (const char* const none : {"", "Error", "err", "3", "debug "}) {
        EXPECT_FALSE(log_level_of(none)) << none;
    }
}

// The journal takes the priority, and has the program's name.
TEST_F(Log, lines_for_the_journal_begin_with_their_priority) {
    setenv("JOURNAL_STREAM", name_of_standard_error().c_str(), 1);
    open_log("test", Log_Level::debug);
    write_log(Log_Level::error, "A", "one");
    write_log(Log_Level::info, "A", "two");
    EXPECT_EQ(written(), "<3>A: one\n<6>A: two\n");
}

TEST_F(Log, standard_error_that_was_led_elsewhere_is_no_journal) {
    for (const char* const other : {"1:2", "", ":", "x:y", "99999999999999999999999:1"}) {
        setenv("JOURNAL_STREAM", other, 1);
        open_log("test");
        write_log(Log_Level::error, std::string("A") + other, "text");
    }
    for (const std::string& line : lines()) {
        EXPECT_EQ(line.rfind("test: A", 0), 0U) << line;
    }
}

// Names come from configurations, requests and cards.
TEST_F(Log, hostile_names_stay_on_one_line_and_reach_no_terminal) {
    open_log("test");
    write_log(Log_Level::warning, "CAM\n<0>fake\x1b[2J", "refused: \xff\x07");
    EXPECT_EQ(written(), "test: CAM\\x0a<0>fake\\x1b[2J: refused: \\xff\\x07\n");
}

TEST_F(Log, a_flood_is_cut_and_counted) {
    open_log("test");
    for (int i = 0; i < 1000; ++i) {
        write_log(Log_Level::warning, "flood", "line " + std::to_string(i));
    }
    const std::size_t at_once = lines().size();
    EXPECT_GE(at_once, 10U);
    EXPECT_LE(at_once, 15U);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    write_log(Log_Level::warning, "flood", "the last one");
    EXPECT_NE(written().find("flood: 9"), std::string::npos) << written();
    EXPECT_NE(written().find("lines more were left out\ntest: flood: the last one"),
              std::string::npos);
}

TEST_F(Log, lines_of_many_threads_do_not_mix) {
    open_log("test");
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 10; ++n) {
                write_log(Log_Level::warning, "thread" + std::to_string(i),
                          std::string(200, static_cast<char>('a' + i)));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lines().size(), 80U);
    for (const std::string& line : lines()) {
        EXPECT_EQ(line.size(), std::string("test: thread0: ").size() + 200) << line;
    }
}

// A full disk, a closed pipe.
TEST_F(Log, a_log_that_takes_nothing_stops_nobody) {
    open_log("test");
    close(STDERR_FILENO);
    write_log(Log_Level::error, "closed", "text");
    dup2(STDIN_FILENO, STDERR_FILENO);
}

}  // namespace
