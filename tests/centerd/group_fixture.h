// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>

#include "daemon_fixture.h"

/// Fixture of tests with groups of the configuration and several users. Groups are given by number;
/// a number needs no entry.
namespace group_test {

namespace fs = std::filesystem;

inline constexpr const char* rings = "/dev/shm/shm/rings";
inline constexpr const char* guarded = "/dev/shm/shm/rings/CAM_LOOP.d";
inline constexpr const char* ring = "/dev/shm/shm/rings/CAM_LOOP.d/CAM_LOOP_0_0";
inline constexpr const char* outside_reader =
    "CAM_LOOP, stream 0, may be read by group 7001 only; this process (user 3003) is not in it";

// Of CAM_LOOP; CAM_REC is everybody's.
inline std::string with_keys(const std::string& keys) {
    return R"({"Stream": [{"index": 0, "page_size": 4096}, {"index": 1, "page_size": 8192}],
               "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0, 1])" +
           keys +
           R"(}, {"name": "CAM_REC", "channel": 1, "stream": [0, 1]}],
               "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0, 1]}]})";
}
inline const std::string both = with_keys(R"(, "group": "7001", "producers": "7002")");

class Daemon_Groups : public Daemon_Process {
protected:
    void SetUp() override {
        Daemon_Process::SetUp();
        if (!there_is_nobody()) {
            GTEST_SKIP() << "needs several users who may run the program";
        }
    }
    void TearDown() override {
        daemon.reset();
        fs::remove_all(rings);
        Daemon_Process::TearDown();
    }

    // Clients are in group 1.
    static Words user(const std::string& id, const std::string& groups) {
        return {"/usr/bin/setpriv", "--reuid=" + id, "--regid=" + id, "--groups=" + groups};
    }
    static Words producer() { return user("3001", "1,7001,7002"); }
    static Words reader() { return user("3002", "1,7001"); }
    static Words outsider() { return user("3003", "1"); }

    static Child_Process as(Words words, const Words& more) {
        words.insert(words.end(), more.begin(), more.end());
        return Child_Process(words);
    }
    static Child_Process publisher(const Words& who) {
        return as(who, {ZAV_TEST_RING_CLIENT, "publish", "CAM_LOOP", "1000000"});
    }
    static Child_Process subscriber(const Words& who, const std::string& name = "-") {
        return as(who, {ZAV_TEST_RING_CLIENT, "subscribe", name, "CAM_LOOP"});
    }
    static Child_Process fixed_client(const Words& who, const Words& role) {
        Words words{ZAV_TEST_CLIENT};
        words.insert(words.end(), role.begin(), role.end());
        return as(who, words);
    }
    static Child_Process shell(const Words& who, const std::string& script) {
        return as(who, {"/bin/sh", "-c", script});
    }
    static std::string account_of(Child_Process& process) {
        process.signal(SIGTERM);
        return process.read_rest();
    }

    static std::string rights_of(const std::string& path) {
        struct stat found {};
        if (lstat(path.c_str(), &found) != 0) {
            return "none";
        }
        std::ostringstream text;
        text << std::oct << (found.st_mode & 07777U) << std::dec << " " << found.st_uid << ":"
             << found.st_gid;
        return text.str();
    }

    static void expect_reads(const Words& who, const std::string& name = "-") {
        Child_Process process = subscriber(who, name);
        EXPECT_EQ(process.read_line(), "ready");
        EXPECT_EQ(process.read_line(), "first");
        EXPECT_NE(account_of(process).find("missing=0"), std::string::npos);
    }

    bool waits_for(const std::function<bool()>& what) const {
        for (int i = 0; i < 400 && !what(); ++i) {
            usleep(25'000);
        }
        return what();
    }
};

}  // namespace group_test
