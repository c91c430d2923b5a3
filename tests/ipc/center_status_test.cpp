// SPDX-License-Identifier: Apache-2.0
#include "control/center_status.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "support/kernel_objects.h"

namespace {

class Status_File : public Kernel_Objects {
protected:
    void SetUp() override {
        Kernel_Objects::SetUp();
        make_folder("shm");
    }
    void TearDown() override {
        std::filesystem::remove(path());
        Kernel_Objects::TearDown();
    }

    static std::string path() { return zav_shm::center_status_path("/shm"); }

    static std::optional<std::string> producer_in(const std::string& content) {
        std::ofstream(path()) << content;
        return zav_shm::producer_feeding("/shm", {"PLAYER", 1, 0});
    }
};

TEST_F(Status_File, tells_which_producer_feeds_a_consumer) {
    EXPECT_EQ(producer_in(R"({"channels": [
        {"name": "CAM_LOOP", "consumers": [{"name": "PLAYER", "channel": 0, "stream": 0}]},
        {"name": "CAM_REC", "consumers": [{"name": "TAPE", "channel": 1, "stream": 0},
                                          {"name": "PLAYER", "channel": 1, "stream": 0}]}]})"),
              "CAM_REC");
}

TEST_F(Status_File, that_does_not_name_the_consumer_tells_nothing) {
    EXPECT_FALSE(producer_in(R"({"channels": []})"));
    EXPECT_FALSE(producer_in(R"({"channels": [{"name": "CAM_REC", "consumers": []}]})"));
    EXPECT_FALSE(zav_shm::producer_feeding("/other", {"PLAYER", 1, 0}));
}

TEST_F(Status_File, that_is_broken_tells_nothing) {
    for (const char* content :
         {"", "{", "[]", "7", R"({"channels": 7})", R"({"channels": [7, "x", [], {}]})",
          R"({"channels": [{"name": 7, "consumers": []}]})",
          R"({"channels": [{"name": "CAM_REC", "consumers": 7}]})",
          R"({"channels": [{"name": "CAM_REC", "consumers": [7]}]})"}) {
        EXPECT_FALSE(producer_in(content)) << content;
    }
    EXPECT_FALSE(producer_in(std::string(5000, '[')));
}

// The open would wait for somebody who writes.
TEST_F(Status_File, that_is_a_pipe_tells_nothing_and_is_not_waited_for) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_FALSE(zav_shm::producer_feeding("/shm", {"PLAYER", 1, 0}));
}

}  // namespace
