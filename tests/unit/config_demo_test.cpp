// SPDX-License-Identifier: Apache-2.0
//
// The program config_demo, run as such, and the sample files that it is shown with.
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <sstream>

#include "unit/config_fixture.h"

namespace {

class Config_Demo : public Config {
protected:
    /// Runs the program; its standard error goes to the file `errors`.
    int run(const std::string& arguments) {
        const std::string command =
            ZAV_SHM_CONFIG_DEMO " " + arguments + " 2>'" + path("errors") + "'";
        FILE* pipe = popen(command.c_str(), "r");
        output.clear();
        std::array<char, 4096> buffer{};
        while (const std::size_t got = fread(buffer.data(), 1, buffer.size(), pipe)) {
            output.append(buffer.data(), got);
        }
        const int status = pclose(pipe);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string errors() const {
        std::ostringstream text;
        text << std::ifstream(path("errors")).rdbuf();
        return text.str();
    }

    std::string output;
};

TEST_F(Config_Demo, prints_the_defaults) {
    EXPECT_EQ(run(""), 0);
    EXPECT_EQ(output,
              "Root Path /dev/shm\nShm Path shm\nSem Path sem\n"
              "Stream Num 2\nDistributor Num 3\nReceiver Num 4\n"
              "Stream Index 0, Page Size 1048576\n"
              "Stream Index 1, Page Size 1048576\n"
              "\n"
              "Distributor Name CAM_LOOP, Channel 9\nSupprt Stream : \n\n"
              "Distributor Name CAM_REC, Channel 4\nSupprt Stream : \n\n"
              "Distributor Name PLAYBACK, Channel 4\nSupprt Stream : \n\n"
              "Receiver Name PLAYER, Channel 9\nSupprt Stream : \n\n"
              "Receiver Name RECODER, Channel 4\nSupprt Stream : \n\n"
              "Receiver Name REMOTE_LOOP, Channel 9\nSupprt Stream : \n\n"
              "Receiver Name REMOTE_PLAYBACK, Channel 4\nSupprt Stream : \n\n");
    EXPECT_EQ(errors(), "");
}

TEST_F(Config_Demo, prints_a_file) {
    EXPECT_EQ(run(write(Config_Text())), 0);
    EXPECT_EQ(output,
              "Root Path /dev/shm\nShm Path shm\nSem Path sem\n"
              "Stream Num 2\nDistributor Num 1\nReceiver Num 1\n"
              "Stream Index 0, Page Size 4096\n"
              "Stream Index 1, Page Size 512\n"
              "\n"
              "Distributor Name CAM, Channel 2\nSupprt Stream : 0 1 \n\n"
              "Receiver Name PLAYER, Channel 2\nSupprt Stream : 0 1 \n\n");
    EXPECT_EQ(errors(), "");
}

TEST_F(Config_Demo, tells_why_a_file_does_not_load) {
    EXPECT_EQ(run(write("{}")), 1);
    EXPECT_EQ(output, "Parse Stream Fail\n");
    EXPECT_EQ(errors(), "config_demo: Stream is missing\n");
}

TEST_F(Config_Demo, tells_what_a_file_should_not_be_run_with) {
    EXPECT_EQ(run(write(Config_Text{.system = R"({"SHM_PATH": "a/b", "SEM_PATH": ""})"})), 1);
    EXPECT_EQ(output.substr(0, 36), "Root Path /dev/shm\nShm Path a/b\nSem ");
    EXPECT_EQ(errors(),
              "config_demo: System.SHM_PATH: \"a/b\" contains a slash\n"
              "config_demo: System.SEM_PATH is empty\n");
}

TEST_F(Config_Demo, tells_what_is_probably_not_meant) {
    EXPECT_EQ(run(write(Config_Text{.system = R"({"kick_idel": true})"})), 0);
    EXPECT_EQ(errors(),
              "config_demo: warning: System: the unknown key \"kick_idel\" is ignored; "
              "\"kick_idle\" is a known one\n");
}

TEST_F(Config_Demo, takes_one_file_at_most) {
    EXPECT_EQ(run("one two"), 2);
    EXPECT_EQ(output, "");
    EXPECT_EQ(errors(), "config_demo: 2 arguments, at most one FILE is taken\n");
}

TEST_F(Config_Demo, samples_load_without_a_problem) {
    int samples = 0;
    for (const auto& entry : std::filesystem::directory_iterator(ZAV_SHM_SAMPLES)) {
        if (entry.path().extension() != ".json") {
            continue;
        }
        ++samples;
        const std::string file = entry.path();
        EXPECT_EQ(run("'" + file + "'"), 0) << file;
        EXPECT_EQ(errors(), "") << file;
    }
    EXPECT_GT(samples, 0);
}

TEST_F(Config_Demo, recorder_sample_serves_every_stream_that_it_names) {
    ASSERT_EQ(config.parse_config(ZAV_SHM_SAMPLES "/recorder.json"), 1) << config.error();
    ASSERT_EQ(config.distributors().size(), 3U);
    EXPECT_STREQ(config.distributors()[0]->name, "CAM_LOOP");
    EXPECT_EQ(config.distributors()[0]->channel, 2);
    for (const auto& records : {config.distributors(), config.receivers()}) {
        for (const auto* record : records) {
            EXPECT_FALSE(record->stream.empty()) << record->name;
        }
    }
}

}  // namespace
