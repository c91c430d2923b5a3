// SPDX-License-Identifier: Apache-2.0
//
// What is printed, byte for byte.
#include "unit/config_fixture.h"

namespace {

class Config_Print : public Config {
protected:
    std::string print() {
        return output_of([this] { config.print_config(); });
    }
};

TEST_F(Config_Print, of_an_empty_object_is_the_head_and_an_empty_line) {
    EXPECT_EQ(print(),
              "Root Path \nShm Path \nSem Path \n"
              "Stream Num 0\nDistributor Num 0\nReceiver Num 0\n"
              "\n");
}

TEST_F(Config_Print, of_a_file_lists_its_stream_numbers) {
    ASSERT_EQ(load(Config_Text{
                  .system = R"({"ROOT_PATH": "/r", "SHM_PATH": "s", "SEM_PATH": "t"})",
                  .stream = R"([{"index": -1, "page_size": 10}, {"index": 20, "page_size": 0}])",
                  .distributor = R"([{"name": "CAM", "channel": 3, "stream": [1, 0, 2]},
                                     {"name": "", "channel": -7, "stream": []}])",
                  .receiver = R"([{"name": "PLAYER %s", "channel": 1, "stream": [0]}])"}),
              1);
    EXPECT_EQ(print(),
              "Root Path /r\nShm Path s\nSem Path t\n"
              "Stream Num 2\nDistributor Num 2\nReceiver Num 1\n"
              "Stream Index -1, Page Size 10\n"
              "Stream Index 20, Page Size 0\n"
              "\n"
              "Distributor Name CAM, Channel 3\n"
              "Supprt Stream : 1 0 2 \n\n"
              "Distributor Name , Channel -7\n"
              "Supprt Stream : \n\n"
              "Receiver Name PLAYER %s, Channel 1\n"
              "Supprt Stream : 0 \n\n");
}

TEST_F(Config_Print, follows_the_counts_but_not_beyond_the_records) {
    config.load_default();
    config.stream_num = 1;
    config.distributor_num = -1;
    config.receiver_num = 1000;
    EXPECT_EQ(print(),
              "Root Path /dev/shm\nShm Path shm\nSem Path sem\n"
              "Stream Num 1\nDistributor Num -1\nReceiver Num 1000\n"
              "Stream Index 0, Page Size 1048576\n"
              "\n"
              "Receiver Name PLAYER, Channel 9\nSupprt Stream : \n\n"
              "Receiver Name RECODER, Channel 4\nSupprt Stream : \n\n"
              "Receiver Name REMOTE_LOOP, Channel 9\nSupprt Stream : \n\n"
              "Receiver Name REMOTE_PLAYBACK, Channel 4\nSupprt Stream : \n\n");
}

TEST_F(Config_Print, loading_the_defaults_replaces_everything_but_the_document) {
    ASSERT_EQ(load(Config_Text{.system = R"({"kick_idle": true})"}), 1);
    config.load_default();
    EXPECT_FALSE(config.kick_idle);
    EXPECT_TRUE(config.root.isMember("Stream"));
    ASSERT_EQ(config.stream_configs.size(), 2U);
    EXPECT_EQ(config.stream_configs[1]->index, 1);
    ASSERT_EQ(config.distributor_configs.size(), 3U);
    ASSERT_EQ(config.receiver_configs.size(), 4U);
    for (const auto* record : config.receivers()) {
        EXPECT_TRUE(record->stream.empty());
    }
}

}  // namespace
