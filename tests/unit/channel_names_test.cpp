// SPDX-License-Identifier: Apache-2.0
#include "stream/channel_names.h"

#include <gtest/gtest.h>

namespace {

class Channel_Names : public testing::Test {
protected:
    void SetUp() override {
        IPC_SHM_CTRL_INFO::set_shm_root_path("streams");
        IPC_SHM_CTRL_INFO::set_sem_root_path("semaphores");
    }
    const Shm_Stream_Transmission_Index key{"CAM_LOOP", 0, 1};
};

TEST_F(Channel_Names, of_the_producer_side) {
    const IPC_SHM_SRC_CTRL_INFO names(key);
    EXPECT_EQ(names.shm_path, "/streams/CAM_LOOP_0_1");
    EXPECT_EQ(names.sem_path_src, "/SRC_CAM_LOOP_SEM_0_1_0");
    EXPECT_EQ(names.sem_path_dst, "/SRC_CAM_LOOP_SEM_0_1_1");
    EXPECT_EQ(names.sem_path_exist, "/SRC_CAM_LOOP_SEM_0_1_2");
}

TEST_F(Channel_Names, of_both_sides_share_the_segment_and_no_semaphore) {
    const IPC_SHM_SRC_CTRL_INFO producer(key);
    const IPC_SHM_DST_CTRL_INFO consumer(key);
    EXPECT_EQ(consumer.shm_path, producer.shm_path);
    EXPECT_EQ(consumer.sem_path_src, "/DST_CAM_LOOP_SEM_0_1_0");
    EXPECT_EQ(consumer.sem_path_dst, "/DST_CAM_LOOP_SEM_0_1_1");
    EXPECT_EQ(consumer.sem_path_exist, "/DST_CAM_LOOP_SEM_0_1_2");
}

TEST_F(Channel_Names, of_a_consumer_with_another_streams_segment_keep_their_semaphores) {
    const Shm_Stream_Transmission_Index player("PLAYER", 0, 1);
    const IPC_SHM_DST_CTRL_INFO names(player, "CAM_LOOP");
    EXPECT_EQ(names.shm_path, "/streams/CAM_LOOP_0_1");
    EXPECT_EQ(names.sem_path_src, "/DST_PLAYER_SEM_0_1_0");
}

TEST_F(Channel_Names, do_not_use_the_semaphore_root) {
    IPC_SHM_CTRL_INFO::set_sem_root_path("elsewhere");
    EXPECT_EQ(IPC_SHM_SRC_CTRL_INFO(key).sem_path_src, "/SRC_CAM_LOOP_SEM_0_1_0");
    EXPECT_EQ(IPC_SHM_CTRL_INFO::sem_root_path, "elsewhere");
}

TEST_F(Channel_Names, are_63_characters_at_most) {
    const Shm_Stream_Transmission_Index long_key(std::string(300, 'N'), 2147483647, -2147483647);
    const IPC_SHM_CTRL_INFO names(std::string(40, 'S'), std::string(200, 'M'), long_key);
    EXPECT_EQ(names.shm_path, "/streams/" + std::string(54, 'M'));
    EXPECT_EQ(names.sem_path_src, "/" + std::string(40, 'S') + "_" + std::string(21, 'N'));
    EXPECT_EQ(names.sem_path_dst.size(), 63U);
    EXPECT_EQ(names.sem_path_exist.size(), 63U);
}

TEST_F(Channel_Names, of_exactly_63_characters_are_whole) {
    const Shm_Stream_Transmission_Index fitting(std::string(49, 'N'), 0, 0);
    EXPECT_EQ(IPC_SHM_SRC_CTRL_INFO(fitting).sem_path_src,
              "/SRC_" + std::string(49, 'N') + "_SEM_0_0_");
    const Shm_Stream_Transmission_Index whole(std::string(48, 'N'), 0, 0);
    EXPECT_EQ(IPC_SHM_SRC_CTRL_INFO(whole).sem_path_src,
              "/SRC_" + std::string(48, 'N') + "_SEM_0_0_0");
}

TEST_F(Channel_Names, reset_empties_all_four) {
    IPC_SHM_SRC_CTRL_INFO names(key);
    names.reset();
    EXPECT_EQ(names.shm_path, "");
    EXPECT_EQ(names.sem_path_src, "");
    EXPECT_EQ(names.sem_path_dst, "");
    EXPECT_EQ(names.sem_path_exist, "");
}

}  // namespace
