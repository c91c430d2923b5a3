// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config/zav_shm_config.h"
#include "support/capture.h"

/// A configuration and a temporary folder for its files, which goes with the test.
class Config : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "zav_config_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string path(const std::string& name = "config.json") const { return folder_ / name; }

    std::string write(const std::string& content) const {
        std::ofstream(path(), std::ios::binary) << content;
        return path();
    }

    /// Loads `content` from a file; `printed` is what that wrote to standard output.
    int load(const std::string& content) { return load_path(write(content).c_str()); }
    int load_path(const char* file) {
        int result = -1;
        printed = output_of([&] { result = config.parse_config(file); });
        return result;
    }

    void expect_empty() const {
        EXPECT_STREQ(config.root_path, "");
        EXPECT_STREQ(config.shm_path, "");
        EXPECT_STREQ(config.sem_path, "");
        EXPECT_EQ(config.stream_num, 0);
        EXPECT_EQ(config.distributor_num, 0);
        EXPECT_EQ(config.receiver_num, 0);
        EXPECT_FALSE(config.kick_idle);
        EXPECT_TRUE(config.stream_configs.empty());
        EXPECT_TRUE(config.distributor_configs.empty());
        EXPECT_TRUE(config.receiver_configs.empty());
    }

    /// `content` loads, with exactly one problem.
    void expect_problem(const std::string& content, const std::string& problem) {
        ZAV_SHM_CONFIG fresh;
        EXPECT_EQ(fresh.parse_config(write(content).c_str()), 1) << content << fresh.error();
        EXPECT_EQ(fresh.problems(), std::vector<std::string>{problem}) << content;
    }

    /// `content` does not load: `output` is printed, the object is empty, error() is `error`.
    void expect_failure(const std::string& content, const std::string& output,
                        const std::string& error) {
        EXPECT_EQ(load(content), 0) << content;
        EXPECT_EQ(printed, output) << content;
        EXPECT_EQ(config.error(), error) << content;
        expect_empty();
    }

    ZAV_SHM_CONFIG config;
    std::string printed;

private:
    std::filesystem::path folder_;
};

/// The text of a configuration whose sections a test replaces one by one; an empty one is left
/// out. Two streams, one producer and one consumer.
struct Config_Text {
    std::string system = {};
    std::string stream = R"([{"index": 0, "page_size": 4096}, {"index": 1, "page_size": 512}])";
    std::string distributor = R"([{"name": "CAM", "channel": 2, "stream": [0, 1]}])";
    std::string receiver = R"([{"name": "PLAYER", "channel": 2, "stream": [0, 1]}])";

    operator std::string() const {
        std::string text;
        add(text, "System", system);
        add(text, "Stream", stream);
        add(text, "Distributor", distributor);
        add(text, "Receiver", receiver);
        return "{" + text + "}";
    }

private:
    static void add(std::string& text, const std::string& key, const std::string& value) {
        if (!value.empty()) {
            text += (text.empty() ? "\"" : ",\"") + key + "\":" + value;
        }
    }
};
