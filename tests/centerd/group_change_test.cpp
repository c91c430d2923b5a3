// SPDX-License-Identifier: Apache-2.0
//
// Groups of the configuration when the daemon, publishers and readers come and go, and when the
// groups change.
#include "group_fixture.h"

namespace {

using namespace group_test;

TEST_F(Daemon_Groups, restarts_and_orders_of_start_lose_nothing) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    Child_Process player = subscriber(reader());  // first
    ASSERT_EQ(player.read_line(), "ready");
    Child_Process camera = publisher(producer());
    ASSERT_EQ(camera.read_line(), "ready");
    ASSERT_EQ(player.read_line(), "first");
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    EXPECT_EQ(end(SIGKILL), 128 + SIGKILL);
    expect_reads(reader());  // without a daemon
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    const std::string published = account_of(camera);
    usleep(300'000);
    const std::string received = account_of(player);
    EXPECT_NE(published.find("not=0"), std::string::npos) << published;
    EXPECT_NE(received.find("missing=0 lost=0"), std::string::npos) << received;
    EXPECT_EQ(end(), 0);
    // The folder is left, and says still whose it is.
    Child_Process refused = publisher(reader());
    EXPECT_NE(refused.read_line().value_or("").find("may be produced by group 7002 only"),
              std::string::npos);
    Child_Process next = publisher(producer());
    usleep(500'000);
    EXPECT_EQ(rights_of(ring), "640 3001:7001");
    EXPECT_EQ(subscriber(outsider()).read_line(), outside_reader);
}

TEST_F(Daemon_Groups, changed_groups_hold_for_publishers_that_run) {
    ASSERT_TRUE(start_with(with_keys(""), {"--group", "daemon"}));
    Child_Process camera = publisher(producer());
    ASSERT_EQ(camera.read_line(), "ready");
    Child_Process player = subscriber(reader());
    ASSERT_EQ(player.read_line(), "ready");
    ASSERT_EQ(player.read_line(), "first");
    const auto move_to = [&](const std::string& keys, const std::string& path,
                             const std::string& rights) {
        end(SIGKILL);
        ASSERT_TRUE(start_with(with_keys(keys), {"--group", "daemon"}));
        EXPECT_TRUE(waits_for([&] { return rights_of(path) == rights; })) << rights_of(path);
    };
    move_to(R"(, "group": "7001", "producers": "7002")", ring, "640 3001:7001");
    EXPECT_FALSE(fs::exists("/dev/shm/shm/rings/CAM_LOOP_0_0"));
    usleep(1'200'000);  // a reader looks at the name once a second
    const std::string received = account_of(player);
    EXPECT_NE(received.find("missing=0 lost=0"), std::string::npos) << received;
    expect_reads(reader());
    move_to(R"(, "group": "7002", "producers": "7002")", ring, "640 3001:7002");
    EXPECT_NE(subscriber(reader()).read_line().value_or("").find("group 7002 only"),
              std::string::npos);
    move_to(R"(, "producers": "7001")", ring, "640 3001:1");
    expect_reads(outsider());
    move_to("", "/dev/shm/shm/rings/CAM_LOOP_0_0", "640 3001:1");
    EXPECT_FALSE(fs::exists(guarded));
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, clean_leaves_what_is_used) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon", "--clean"}));
    Child_Process camera = publisher(producer());
    ASSERT_EQ(camera.read_line(), "ready");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(rights_of(ring), "640 3001:7001");
    EXPECT_EQ(rights_of(std::string(guarded) + "/stream_0.readers"), "640 0:7001");
    camera.kill();
    ASSERT_TRUE(start_with(both, {"--group", "daemon", "--clean"}));
    EXPECT_EQ(end(), 0);
    EXPECT_FALSE(fs::exists("/dev/shm/shm"));
}

TEST_F(Daemon_Groups, folder_that_is_removed_is_made_again) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    Child_Process camera = publisher(producer());
    ASSERT_EQ(camera.read_line(), "ready");
    fs::remove_all(guarded);
    EXPECT_TRUE(waits_for([] { return rights_of(ring) == "640 3001:7001"; }));
    EXPECT_NE(errors().find("a producer's folder in"), std::string::npos) << errors();
    camera.kill();
    EXPECT_EQ(end(), 0);
}

}  // namespace
