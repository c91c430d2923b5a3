// SPDX-License-Identifier: Apache-2.0
//
// Groups of the configuration: who may produce and who may read, with real users.
#include "group_fixture.h"

namespace {

using namespace group_test;

TEST_F(Daemon_Groups, files_belong_to_their_groups) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    EXPECT_EQ(rights_of(rings), "3770 0:1");
    EXPECT_EQ(rights_of(guarded), "3775 0:7002");
    EXPECT_EQ(rights_of(std::string(guarded) + "/stream_1.readers"), "640 0:7001");
    EXPECT_EQ(rights_of("/dev/shm/shm/CAM_LOOP_0_1"), "660 0:7001");
    EXPECT_EQ(rights_of("/dev/shm/sem.SRC_CAM_LOOP_SEM_0_1_2"), "660 0:7002");
    EXPECT_EQ(rights_of("/dev/shm/shm/CAM_REC_0_1"), "660 0:1");
    EXPECT_EQ(rights_of("/dev/shm/sem.DST_PLAYER_SEM_0_1_2"), "660 0:1");
    EXPECT_FALSE(fs::exists("/dev/shm/shm/rings/CAM_REC.d"));
    Child_Process camera = publisher(producer());
    EXPECT_EQ(camera.read_line(), "ready");
    EXPECT_EQ(rights_of(ring), "640 3001:7001");
    EXPECT_EQ(rights_of(std::string(ring) + ".lock").substr(0, 3), "600");
    EXPECT_EQ(rights_of(std::string(ring) + ".request"), "660 3001:7001");
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, nothing_is_different_without_keys) {
    ASSERT_TRUE(start_with(with_keys(""), {"--group", "daemon"}));
    EXPECT_TRUE(fs::is_empty(rings));
    Child_Process camera = publisher(outsider());
    EXPECT_EQ(camera.read_line(), "ready");
    EXPECT_EQ(rights_of("/dev/shm/shm/rings/CAM_LOOP_0_0"), "640 3003:1");
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, reader_of_the_group_reads_and_an_outsider_is_refused) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    Child_Process camera = publisher(producer());
    ASSERT_EQ(camera.read_line(), "ready");
    expect_reads(reader());
    expect_reads(reader(), "PLAYER");
    for (const char* name : {"-", "PLAYER"}) {
        Child_Process refused = subscriber(outsider(), name);
        EXPECT_EQ(refused.read_line(), outside_reader);
        EXPECT_NE(account_of(refused).find("received=0"), std::string::npos);
    }
    Child_Process tool =
        shell(outsider(), std::string(ZAV_TEST_TOOL) +
                              " record --tap --pair CAM_LOOP --output /dev/null --frames 1 2>&1");
    EXPECT_NE(tool.read_rest().find(outside_reader), std::string::npos);
    EXPECT_EQ(tool.wait(), 4);
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, outsider_reaches_neither_ring_nor_slot_by_hand) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    Child_Process camera = publisher(producer());
    ASSERT_EQ(camera.read_line(), "ready");
    for (const std::string& file : {std::string(ring), std::string("/dev/shm/shm/CAM_LOOP_0_0"),
                                    std::string("/dev/shm/sem.SRC_CAM_LOOP_SEM_0_0_0")}) {
        EXPECT_NE(shell(outsider(), "exec 2>&-; head -c1 " + file).wait(), 0) << file;
    }
    EXPECT_NE(shell(outsider(), std::string("exec 2>&-; echo 1 >>") + ring + ".request").wait(), 0);
    EXPECT_EQ(shell(reader(), std::string("head -c1 ") + ring + " >/dev/null").wait(), 0);
    EXPECT_NE(shell(reader(), std::string("exec 2>&-; echo 1 >>") + ring).wait(), 0);
    camera.kill();
    EXPECT_EQ(end(), 0);
}

// What a client can do in the rings' folder: take the names of a ring that is not there yet.
TEST_F(Daemon_Groups, reader_cannot_take_the_names_of_a_ring) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    const std::string take =
        "exec 2>/dev/null; cd /dev/shm/shm/rings; taken=0;"
        "for name in '' .new .lock .request; do"
        "  true >CAM_LOOP.d/CAM_LOOP_0_0$name && taken=1; true >CAM_LOOP_0_0$name; done;"
        "rm -rf CAM_LOOP.d; mv CAM_LOOP.d elsewhere && taken=1; mkdir CAM_REC.d; exit $taken";
    EXPECT_EQ(shell(reader(), take).wait(), 0);
    EXPECT_EQ(rights_of(guarded), "3775 0:7002");
    Child_Process camera = publisher(producer());
    EXPECT_EQ(camera.read_line(), "ready");
    expect_reads(reader());
    // A folder that is not the host's is nobody's.
    Child_Process other = as(outsider(), {ZAV_TEST_RING_CLIENT, "publish", "CAM_REC", "1000000"});
    EXPECT_EQ(other.read_line(), "ready");
    EXPECT_EQ(rights_of("/dev/shm/shm/rings/CAM_REC_0_0"), "640 3003:1");
    other.kill();
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, trap_from_before_the_daemon_is_put_aside) {
    ASSERT_TRUE(start_with(with_keys(""), {"--group", "daemon"}));
    EXPECT_EQ(shell(outsider(), std::string("mkdir -p ") + guarded + "/x; : >" + ring +
                                    ".lock; : >" + rings + "/CAM_LOOP_0_0.lock")
                  .wait(),
              0);
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    EXPECT_EQ(rights_of(guarded), "3775 0:7002");
    EXPECT_FALSE(fs::exists(std::string(guarded) + "/x"));
    Child_Process camera = publisher(producer());
    EXPECT_EQ(camera.read_line(), "ready");
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, producer_outside_is_refused) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    Child_Process refused = publisher(reader());
    EXPECT_EQ(refused.read_line(),
              "CAM_LOOP may be produced by group 7002 only; this process (user 3002) is not in it: "
              "add it (usermod -aG 7002 3002) and start it anew");
    EXPECT_NE(account_of(refused).find("published=0"), std::string::npos);
    // It may produce, but cannot hand its ring to the readers.
    Child_Process half = publisher(user("3004", "1,7002"));
    EXPECT_EQ(half.read_line(), std::string(ring) +
                                    " is for readers of group 7001, and the user of this process, "
                                    "3004, is not in it: add it (usermod -aG 7001 3004) and start "
                                    "it anew");
    half.kill();
    EXPECT_FALSE(fs::exists(ring));
    EXPECT_TRUE(waits_for([this] {
        return errors().find(
                   "(user 3002) wanted to produce CAM_LOOP, which is for group 7002 "
                   "only") != std::string::npos;
    })) << errors();
    EXPECT_TRUE(waits_for([] {
        return content_of("/dev/shm/shm/center_status.json").find("\"refused_outsiders\":0") ==
               std::string::npos;
    }));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, clients_of_the_fixed_interface_are_held_to_them) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    {
        Child_Process camera = fixed_client(producer(), {"producer", "CAM_LOOP", "1"});
        ASSERT_EQ(camera.read_line(), "ready");
        Child_Process player = fixed_client(reader(), {"consumer", "PLAYER", "CAM_LOOP", "50"});
        ASSERT_EQ(player.read_line(), "ready");
        EXPECT_EQ(player.read_line(), "right=50 wrong=0 disordered=0 left=success");
    }
    EXPECT_NE(fixed_client(outsider(), {"consumer", "PLAYER", "CAM_LOOP", "5"}).read_line(),
              "ready");
    EXPECT_NE(fixed_client(reader(), {"producer", "CAM_LOOP", "1"}).read_line(), "ready");
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, pairing_by_an_outsider_is_a_wrong_name) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    const std::string pair =
        std::string(ZAV_TEST_TOOL) + " pair --name PLAYER --pair CAM_LOOP 2>&1";
    Child_Process refused = shell(outsider(), pair);
    EXPECT_NE(refused.read_rest().find("Can't Find Shm Pair Name CAM_LOOP"), std::string::npos);
    EXPECT_EQ(refused.wait(), 4);
    EXPECT_EQ(shell(reader(), pair + " >/dev/null").wait(), 0);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, group_of_a_stream_is_its_own) {
    const std::string content =
        R"({"Stream": [{"index": 0, "page_size": 4096},
                       {"index": 1, "page_size": 4096, "group": "7001"}],
            "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0, 1]}],
            "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0, 1]}]})";
    ASSERT_TRUE(start_with(content, {"--group", "daemon"}));
    EXPECT_EQ(rights_of(guarded), "3775 0:1");
    EXPECT_EQ(rights_of(std::string(guarded) + "/stream_0.readers"), "640 0:1");
    EXPECT_EQ(rights_of(std::string(guarded) + "/stream_1.readers"), "640 0:7001");
    Child_Process camera = publisher(outsider());
    EXPECT_EQ(camera.read_line(), "ready");
    expect_reads(user("3005", "1"));
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, modes_for_the_own_user_and_for_everybody) {
    ASSERT_TRUE(start_with(both));
    EXPECT_EQ(rights_of(guarded), "700 0:0");
    EXPECT_EQ(rights_of("/dev/shm/shm/CAM_LOOP_0_0"), "600 0:0");
    EXPECT_NE(errors().find("groups of the configuration have no effect"), std::string::npos);
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start_with(both, {"--mode", "0666"}));
    EXPECT_EQ(rights_of(guarded), "3775 0:7002");
    EXPECT_EQ(rights_of("/dev/shm/shm/CAM_LOOP_0_0"), "660 0:7001");
    EXPECT_EQ(rights_of("/dev/shm/shm/CAM_REC_0_0"), "666 0:0");
    Child_Process camera = publisher(user("3001", "7001,7002"));
    EXPECT_EQ(camera.read_line(), "ready");
    expect_reads(user("3002", "7001"));
    EXPECT_EQ(subscriber(user("3003", "3003")).read_line(), outside_reader);
    camera.kill();
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start_with(with_keys(R"(, "producers": "7002")"), {"--mode", "0666"}));
    EXPECT_EQ(rights_of("/dev/shm/shm/CAM_LOOP_0_0"), "664 0:7002");
    Child_Process again = publisher(user("3001", "7002"));
    EXPECT_EQ(again.read_line(), "ready");
    EXPECT_EQ(rights_of(ring), "644 3001:7002");
    expect_reads(user("3003", "3003"));
    again.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, unknown_group_is_named_and_nothing_is_made) {
    const std::string content = with_keys(R"(, "group": "nobody_has_it", "producers": "daemon")");
    for (const Words& how : {Words{"--check"}, Words{}}) {
        Words words{"--config", configuration(content), "--group", "daemon"};
        words.insert(words.end(), how.begin(), how.end());
        const Ended ended = run(words);
        EXPECT_EQ(ended.status, 3);
        EXPECT_NE(ended.errors.find("Distributor[0].group: there is no group \"nobody_has_it\""),
                  std::string::npos)
            << ended.errors;
        EXPECT_FALSE(fs::exists("/dev/shm/shm"));
    }
}

TEST_F(Daemon_Groups, daemon_without_the_group_cannot_give_it) {
    Words words{"--config", configuration(both), "--group", "daemon"};
    const Ended ended = run(words, user("3001", "1,7002"));
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find("group 7001"), std::string::npos) << ended.errors;
    EXPECT_FALSE(fs::exists("/dev/shm/shm"));
    ASSERT_TRUE(start_with(both, {"--group", "daemon", "--clean"}, user("3001", "1,7001,7002")));
    EXPECT_EQ(rights_of(guarded), "3775 3001:7002");
    Child_Process camera = publisher(user("3006", "1,7001,7002"));
    EXPECT_EQ(camera.read_line(), "ready");
    expect_reads(reader(), "PLAYER");
    EXPECT_EQ(subscriber(outsider()).read_line(), outside_reader);
    camera.kill();
    EXPECT_EQ(end(), 0);
}

// In a PID namespace of its own a client of the group is served: the kernel tells its id here.
TEST_F(Daemon_Groups, clients_of_another_pid_namespace) {
    ASSERT_TRUE(start_with(both, {"--group", "daemon"}));
    Words inside{"/usr/bin/unshare", "--pid", "--fork", "--kill-child"};
    const Words who = producer();
    inside.insert(inside.end(), who.begin(), who.end());
    inside.emplace_back("--pdeathsig=KILL");  // another user forgets that of before
    Child_Process camera = publisher(inside);
    EXPECT_EQ(camera.read_line(), "ready");
    expect_reads(reader(), "PLAYER");
    camera.kill();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Groups, names_of_groups) {
    const std::string groups = write_file("group", "root:x:0:\ndaemon:x:1:\nwatch:x:7001:\n");
    ASSERT_TRUE(start_with(with_keys(R"(, "group": "watch")"), {"--group", "daemon"},
                           {"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
                            "mount --bind " + groups + R"( /etc/group && exec "$@")", "sh"}));
    EXPECT_EQ(rights_of(std::string(guarded) + "/stream_0.readers"), "640 0:7001");
    EXPECT_EQ(end(), 0);
}

}  // namespace
