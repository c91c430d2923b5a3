// SPDX-License-Identifier: Apache-2.0
#include <filesystem>
#include <regex>
#include <sstream>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using Key = Shm_Stream_Transmission_Index;
using Pair_Key = Shm_Stream_Transmission_Pair_Index;

const Key player{"PLAYER", 0, 0};
const Key cam_loop{"CAM_LOOP", 0, 0};
const Pair_Key player_from_cam(std::string("PLAYER"), 0, 0, std::string("CAM_LOOP"));

std::size_t times_in(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class Manager : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        make_folder("sem");
        add_streams({4096, 8192});
        add(config.distributor_configs, "CAM_LOOP", 2);
        add(config.distributor_configs, "CAM_REC", 1);
        add(config.receiver_configs, "PLAYER", 2);
        finish();
    }

    void TearDown() override {
        manager.reset();
        Channels::TearDown();
    }

    void add_streams(std::initializer_list<int> page_sizes) {
        for (const int page_size : page_sizes) {
            config.stream_configs.push_back(new _SHM_STREAM_CONFIG_{0, page_size});
        }
    }

    static void add(std::vector<_SHM_DIST_RECV_CONFIG_*>& list, const char* name, int channels) {
        list.push_back(new _SHM_DIST_RECV_CONFIG_);
        std::strcpy(list.back()->name, name);
        list.back()->channel = channels;
    }

    void finish() {
        std::strcpy(config.root_path, "/dev/shm");
        std::strcpy(config.shm_path, "shm");
        std::strcpy(config.sem_path, "sem");
        config.stream_num = static_cast<int>(config.stream_configs.size());
        config.distributor_num = static_cast<int>(config.distributor_configs.size());
        config.receiver_num = static_cast<int>(config.receiver_configs.size());
    }

    // Announces what the configuration leaves behind, and builds.
    std::string build() {
        for (const auto* record : config.distributors()) {
            for_each_key(*record, [this](const Key& key) {
                leaves_segment(IPC_SHM_SRC_CTRL_INFO(key).shm_path);
                leaves_semaphores(IPC_SHM_SRC_CTRL_INFO(key));
            });
        }
        for (const auto* record : config.receivers()) {
            for_each_key(*record,
                         [this](const Key& key) { leaves_semaphores(IPC_SHM_DST_CTRL_INFO(key)); });
        }
        return output_of(
            [this] { manager = std::make_unique<SHM_Stream_Transmission_Manager>(&config); });
    }

    template <class Action>
    void for_each_key(const _SHM_DIST_RECV_CONFIG_& record, Action action) const {
        for (int channel = 0; channel < record.channel; ++channel) {
            for (int stream = 0; stream < config.stream_num; ++stream) {
                action(Key(record.name, channel, stream));
            }
        }
    }

    std::string dump() const {
        std::ostringstream out;
        out << *manager;
        return out.str();
    }

    // The relay leaves its waits; only then does the count stand still.
    void stop_relay(const Key& key) const { manager->get_transmission(key)->stop(); }

    void time_out(const Key& key, int times) const {
        while (manager->get_distributor(key)->get_sem_wait_error() < times) {
            manager->get_distributor(key)->time_wait_receiver_exist(0);
        }
    }

    ZAV_SHM_CONFIG config;
    std::unique_ptr<SHM_Stream_Transmission_Manager> manager;
};

TEST_F(Manager, prints_folders_and_segments_in_order_while_it_builds) {
    EXPECT_EQ(build(),
              "Mkdir /dev/shm/shm\nMkdir /dev/shm/sem\n"
              "Create SHM at /shm/CAM_LOOP_0_0\nCreate SHM at /shm/CAM_LOOP_0_1\n"
              "Create SHM at /shm/CAM_LOOP_1_0\nCreate SHM at /shm/CAM_LOOP_1_1\n"
              "Create SHM at /shm/CAM_REC_0_0\nCreate SHM at /shm/CAM_REC_0_1\n");
}

TEST_F(Manager, makes_folders_segments_and_semaphores) {
    std::filesystem::remove_all("/dev/shm/shm");
    std::filesystem::remove_all("/dev/shm/sem");
    build();
    namespace fs = std::filesystem;
    EXPECT_EQ(fs::status("/dev/shm/shm").permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status("/dev/shm/sem").permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::file_size("/dev/shm/shm/CAM_LOOP_1_0"), 4096U + 128U);
    EXPECT_EQ(fs::file_size("/dev/shm/shm/CAM_LOOP_1_1"), 8192U + 128U);
    EXPECT_TRUE(exists("sem.SRC_CAM_REC_SEM_0_1_2"));
    EXPECT_TRUE(exists("sem.DST_PLAYER_SEM_1_1_0"));
}

TEST_F(Manager, runs_a_relay_thread_per_producer_channel) {
    const std::size_t before = thread_count();
    build();
    EXPECT_TRUE(becomes_true([&] { return thread_count() == before + 6; }));
    manager.reset();
    EXPECT_TRUE(becomes_true([&] { return thread_count() == before; }));
}

TEST_F(Manager, builds_the_defaults) {
    config.load_default();
    const std::string text = build();
    EXPECT_EQ(times_in(text, "Create SHM at "), 34U);
    EXPECT_EQ(text.find("Mkdir /dev/shm/shm\nMkdir /dev/shm/sem\nCreate SHM at "
                        "/shm/CAM_LOOP_0_0\nCreate SHM at /shm/CAM_LOOP_0_1\n"),
              0U);
    EXPECT_NE(text.find("Create SHM at /shm/CAM_LOOP_8_1\nCreate SHM at /shm/CAM_REC_0_0\n"),
              std::string::npos);
    EXPECT_NE(text.find("Create SHM at /shm/CAM_REC_3_1\nCreate SHM at /shm/PLAYBACK_0_0\n"),
              std::string::npos);
    const std::string dumped = dump();
    EXPECT_EQ(times_in(dumped, "Shm_Name : "), 34U + 52U);
    EXPECT_EQ(std::filesystem::file_size("/dev/shm/shm/PLAYBACK_3_1"), 1'048'704U);
}

TEST_F(Manager, reports_a_producer_name_given_twice_and_keeps_the_first) {
    add(config.distributor_configs, "CAM_REC", 1);
    finish();
    const std::string text = build();
    EXPECT_NE(text.find("Create SHM at /shm/CAM_REC_0_0\nInsert Receiver CAM_REC, 0, 0 Fail\n"
                        "Create SHM at /shm/CAM_REC_0_1\nInsert Receiver CAM_REC, 0, 1 Fail\n"),
              std::string::npos)
        << text;
    // The semaphores are still those that the relay waits on.
    const Peer producer(producer_names("CAM_REC"));
    manager->get_receiver(Key("CAM_REC", 0, 0))->post_distributor_write();
    EXPECT_EQ(producer.value(1), 1);
}

TEST_F(Manager, reports_a_consumer_name_and_a_relay_given_twice) {
    build();
    EXPECT_EQ(output_of([&] { manager->create_distributor(player); }),
              "Insert Distributor PLAYER, 0, 0 Fail\n");
    EXPECT_EQ(output_of([&] { manager->create_transmission(manager->get_receiver(cam_loop)); }),
              "Insert Reciver Transmission Fail\n");
}

TEST_F(Manager, refuses_page_sizes_that_make_no_segment) {
    build();
    output_of([&] {
        manager->create_shm(Key("X", 0, 0), -1);
        manager->create_shm(Key("X", 0, 0), 2147483647);
        manager->create_shm(Key("X", 0, 0), 2147483647 - 127);
    });
    EXPECT_FALSE(exists("shm/X_0_0"));
}

TEST_F(Manager, without_a_configuration_makes_nothing) {
    SHM_Stream_Transmission_Manager empty(nullptr);
    std::ostringstream out;
    out << empty;
    EXPECT_EQ(out.str(),
              "======== Distributor =======\n======== Transmission ========\n"
              "======== Receiver =======\n");
}

TEST_F(Manager, finds_what_it_made_by_key_and_by_pair) {
    build();
    EXPECT_NE(manager->get_receiver(cam_loop), nullptr);
    EXPECT_EQ(manager->get_receiver(player_from_cam), manager->get_receiver(cam_loop));
    EXPECT_NE(manager->get_distributor(player), nullptr);
    EXPECT_EQ(manager->get_distributor(player_from_cam), manager->get_distributor(player));
    EXPECT_NE(manager->get_transmission(cam_loop), nullptr);
    EXPECT_EQ(manager->get_transmission(player_from_cam), manager->get_transmission(cam_loop));
}

TEST_F(Manager, lookup_of_an_unknown_key_leaves_an_assignable_null) {
    build();
    const Key unknown("NOBODY", 0, 0);
    Source*& slot = manager->get_receiver(unknown);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(manager->get_transmission(unknown), nullptr);
    EXPECT_EQ(manager->get_distributor(unknown), nullptr);
    slot = nullptr;
    EXPECT_EQ(times_in(dump(), "Shm_Name : NOBODY, Channel : 0, Stream : 0\n"), 2U);
}

TEST_F(Manager, pairs_and_unpairs) {
    build();
    manager->add_distributor(player_from_cam);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 1);
    manager->remove_distributor(player);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 0);
    manager->remove_distributor(player);
    manager->add_distributor(player_from_cam);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 1);
}

TEST_F(Manager, pairing_twice_lists_the_consumer_once) {
    build();
    EXPECT_EQ(output_of([&] {
                  manager->add_distributor(player_from_cam);
                  manager->add_distributor(player_from_cam);
              }),
              "Duplicate Distributor...\n");
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 1);
    manager->remove_distributor(player);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 0);
}

// Nothing stops a second pairing without removal; the first is what is remembered.
TEST_F(Manager, pairing_with_a_second_producer_keeps_the_first_pair) {
    build();
    const Pair_Key from_rec(std::string("PLAYER"), 0, 0, std::string("CAM_REC"));
    manager->add_distributor(player_from_cam);
    manager->add_distributor(from_rec);
    EXPECT_EQ(manager->get_transmission(from_rec)->get_distributor_num(), 1);
    manager->remove_distributor(player);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 0);
    EXPECT_EQ(manager->get_transmission(from_rec)->get_distributor_num(), 1);
    stop_relay(Key("CAM_REC", 0, 0));
}

TEST_F(Manager, pairing_with_an_unknown_producer_changes_nothing_but_shows_in_the_dump) {
    build();
    manager->add_distributor(Pair_Key(std::string("PLAYER"), 0, 0, std::string("NOBODY")));
    const std::string dumped = dump();
    const std::string line = "Shm_Name : NOBODY, Channel : 0, Stream : 0\n";
    EXPECT_EQ(times_in(dumped.substr(0, dumped.find("Transmission")), line), 1U);
    manager->remove_distributor(player);
    output_of([&] { manager->kick_idle_distributor(true); });
}

TEST_F(Manager, requests_for_unknown_keys_do_not_make_it_grow_without_end) {
    build();
    for (int i = 0; i < 2000; ++i) {
        manager->add_distributor(Pair_Key(std::string("PLAYER"), -i, 0, std::string("CAM_LOOP")));
        manager->remove_distributor(Key("PLAYER", i + 100, -i));
    }
    EXPECT_LT(times_in(dump(), "Shm_Name : "), 700U);
    manager->add_distributor(player_from_cam);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 1);
}

TEST_F(Manager, removing_a_consumer_that_was_never_paired_leaves_it_untouched) {
    build();
    const Peer consumer(consumer_names("PLAYER"));
    consumer.post(2);
    manager->remove_distributor(player);
    EXPECT_EQ(consumer.value(2), 1);
}

TEST_F(Manager, removing_a_paired_consumer_resets_it) {
    build();
    manager->add_distributor(player_from_cam);
    stop_relay(cam_loop);
    const Peer consumer(consumer_names("PLAYER"));
    consumer.post(0);
    time_out(player, 3);
    manager->remove_distributor(player);
    EXPECT_EQ(consumer.values(), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(manager->get_distributor(player)->get_sem_wait_error(), 0);
}

TEST_F(Manager, kicks_a_consumer_with_ten_timeouts_and_keeps_one_with_nine) {
    build();
    manager->add_distributor(player_from_cam);
    stop_relay(cam_loop);
    manager->get_distributor(player)->reset();
    time_out(player, 10);
    manager->kick_idle_distributor(false);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 1);
    manager->get_distributor(player)->reset();
    time_out(player, 9);
    manager->kick_idle_distributor(true);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 1);
    time_out(player, 10);
    manager->kick_idle_distributor(true);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 0);
    EXPECT_EQ(manager->get_distributor(player)->get_sem_wait_error(), 0);
    manager->add_distributor(player_from_cam);  // it was forgotten, too, not only unlisted
    manager->remove_distributor(player);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 0);
}

TEST_F(Manager, kicks_a_consumer_that_stays_away_from_a_running_relay) {
    build();
    manager->add_distributor(player_from_cam);
    EXPECT_TRUE(becomes_true([&] {
        manager->kick_idle_distributor(true);
        return manager->get_transmission(cam_loop)->get_distributor_num() == 0;
    }));
}

TEST_F(Manager, dump_lists_producers_relays_and_consumers) {
    build();
    EXPECT_EQ(dump(),
              "======== Distributor =======\n"
              "Shm_Name : CAM_LOOP, Channel : 0, Stream : 0\n"
              "Shm_Name : CAM_LOOP, Channel : 0, Stream : 1\n"
              "Shm_Name : CAM_LOOP, Channel : 1, Stream : 0\n"
              "Shm_Name : CAM_LOOP, Channel : 1, Stream : 1\n"
              "Shm_Name : CAM_REC, Channel : 0, Stream : 0\n"
              "Shm_Name : CAM_REC, Channel : 0, Stream : 1\n"
              "======== Transmission ========\n"
              "\n\n\n\n\n\n\n\n\n\n\n\n"
              "======== Receiver =======\n"
              "Shm_Name : PLAYER, Channel : 0, Stream : 0\n"
              "Shm_Name : PLAYER, Channel : 0, Stream : 1\n"
              "Shm_Name : PLAYER, Channel : 1, Stream : 0\n"
              "Shm_Name : PLAYER, Channel : 1, Stream : 1\n");
}

TEST_F(Manager, is_torn_down_step_by_step_while_consumers_are_paired) {
    build();
    manager->add_distributor(player_from_cam);
    manager->delete_dst_stream_transmission();
    manager->delete_stream_transmission();
    manager->delete_src_stream_transmission();
    EXPECT_EQ(times_in(dump(), "Shm_Name"), 0U);
}

// What the receive thread, the idle kick and a dump do at the same time.
TEST_F(Manager, is_used_by_several_threads_at_once) {
    build();
    std::atomic<bool> stop{false};
    std::thread kicking([&] {
        while (!stop) {
            manager->kick_idle_distributor(true);
        }
    });
    std::thread dumping([&] {
        while (!stop) {
            dump();
        }
    });
    output_of([&] {
        for (int i = 0; i < 30; ++i) {
            manager->remove_distributor(player);
            manager->add_distributor(Pair_Key(std::string("PLAYER"), 0, 0,
                                              std::string(i % 2 == 0 ? "CAM_REC" : "CAM_LOOP")));
        }
        stop = true;
        kicking.join();
        dumping.join();
    });
    manager->remove_distributor(player);
    EXPECT_EQ(manager->get_transmission(cam_loop)->get_distributor_num(), 0);
    EXPECT_EQ(manager->get_transmission(Key("CAM_REC", 0, 0))->get_distributor_num(), 0);
}

}  // namespace
