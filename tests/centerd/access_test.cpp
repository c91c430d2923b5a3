// SPDX-License-Identifier: Apache-2.0
//
// Who may be a client of the daemon, and the daemon as a user without privileges.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "daemon_fixture.h"

namespace {

namespace fs = std::filesystem;

class Daemon_Access : public Daemon_Process {
protected:
    void SetUp() override {
        Daemon_Process::SetUp();
        if (!there_is_nobody()) {
            GTEST_SKIP() << "needs a second user who may run the program";
        }
    }

    static struct stat status_of(const std::string& path) {
        struct stat found {};
        EXPECT_EQ(stat(path.c_str(), &found), 0) << path;
        return found;
    }
    static unsigned mode_of(const std::string& path) { return status_of(path).st_mode & 07777U; }

    static Child_Process client_process(Words before, const Words& role) {
        before.emplace_back(ZAV_TEST_CLIENT);
        before.insert(before.end(), role.begin(), role.end());
        return Child_Process(before);
    }

    // Frames from a producer to a consumer, both as this user.
    static void expect_frames(const Words& user) {
        Child_Process producer = client_process(user, {"producer", "CAM_LOOP", "1"});
        ASSERT_EQ(producer.read_line(), "ready");
        Child_Process consumer = client_process(user, {"consumer", "PLAYER", "CAM_LOOP", "50"});
        ASSERT_EQ(consumer.read_line(), "ready");
        EXPECT_EQ(consumer.read_line(), "right=50 wrong=0 disordered=0 left=success");
    }
};

TEST_F(Daemon_Access, processes_of_the_group_exchange_frames) {
    ASSERT_TRUE(start({"--group", "daemon"}));
    EXPECT_NE(start_line.find("mode 0660, group daemon"), std::string::npos) << start_line;
    expect_frames(as_nobody("1"));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, group_has_everything_before_the_start_line) {
    ASSERT_TRUE(start({"--group", "daemon"}));
    EXPECT_EQ(mode_of("/dev/shm/shm"), 0750U);
    for (const char* file :
         {"shm/CAM_LOOP_3_1", "sem.SRC_CAM_REC_SEM_0_1_2", "sem.DST_PLAYER_SEM_0_0_0",
          "shm/center_page", "shm/center_status.json"}) {
        EXPECT_EQ(mode_of(std::string("/dev/shm/") + file), 0660U) << file;
        EXPECT_EQ(status_of(std::string("/dev/shm/") + file).st_gid, 1U) << file;
    }
    EXPECT_EQ(mode_of("/dev/shm/shm/center_lock"), 0600U);
    EXPECT_EQ(requests.status().mode, 0660U);
    EXPECT_EQ(replies.status().mode, 0660U);
    EXPECT_EQ(end(), 0);
}

// Also when it is root's, whom no mode keeps out.
TEST_F(Daemon_Access, client_that_is_early_is_answered_when_everything_is_ready) {
    requests.make();  // a client that comes before the center does so
    daemon.emplace(command({"--config", configuration(), "--mode", "0666"}));
    announce_leftovers_of(*parsed(small_configuration));
    std::string reply = "no reply";
    while (reply == "no reply") {  // what is sent before the start is thrown away
        ASSERT_TRUE(client.send_signed(farewell));
        reply = client.reply(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(mode_of("/dev/shm/shm"), 0755U);
    for (const char* file : {"shm/CAM_LOOP_0_0", "sem.SRC_CAM_LOOP_SEM_0_0_0",
                             "sem.DST_REMOTE_LOOP_SEM_8_1_2", "shm/center_page"}) {
        EXPECT_EQ(mode_of(std::string("/dev/shm/") + file), 0666U) << file;
    }
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, without_a_group_everything_is_the_own_users_alone) {
    ASSERT_TRUE(start());
    EXPECT_EQ(mode_of("/dev/shm/shm"), 0700U);
    EXPECT_EQ(mode_of("/dev/shm/shm/CAM_LOOP_0_0"), 0600U);
    EXPECT_EQ(mode_of("/dev/shm/sem.SRC_CAM_LOOP_SEM_0_0_0"), 0600U);
    EXPECT_EQ(mode_of("/dev/shm/shm/center_page"), 0600U);
    EXPECT_EQ(requests.status().mode, 0600U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, mode_0666_lets_everybody_exchange_frames) {
    ASSERT_TRUE(start({"--mode", "0666"}));
    EXPECT_EQ(mode_of("/dev/shm/shm"), 0755U);
    expect_frames(as_nobody());
    EXPECT_EQ(end(), 0);
}

// What a former start allowed is taken back.
TEST_F(Daemon_Access, is_narrowed_by_the_next_start) {
    ASSERT_TRUE(start({"--mode", "0666"}));
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start());
    EXPECT_EQ(mode_of("/dev/shm/shm"), 0700U);
    EXPECT_EQ(mode_of("/dev/shm/shm/CAM_LOOP_0_0"), 0600U);
    EXPECT_EQ(requests.status().mode, 0600U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, queues_that_a_client_made_first_are_given_permissions) {
    requests.make();
    replies.make();
    ASSERT_EQ(requests.status().mode, 0U);
    ASSERT_TRUE(start({"--mode", "0666"}));
    EXPECT_EQ(requests.status().mode, 0666U);
    expect_frames(as_nobody());
    EXPECT_EQ(end(), 0);
}

// ---- the daemon as nobody ----

TEST_F(Daemon_Access, daemon_of_an_unprivileged_user_serves_its_own_clients) {
    ASSERT_TRUE(start({}, as_nobody())) << errors();
    EXPECT_EQ(status_of("/dev/shm/shm/CAM_LOOP_0_0").st_uid, 65534U);
    expect_frames(as_nobody());
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(Daemon_Access, daemon_of_an_unprivileged_user_cleans_up) {
    ASSERT_TRUE(start({"--clean"}, as_nobody())) << errors();
    EXPECT_EQ(end(), 0);
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
    EXPECT_FALSE(requests.status().exists);
}

TEST_F(Daemon_Access, daemon_of_an_unprivileged_user_serves_a_group_that_it_is_in) {
    ASSERT_TRUE(start({"--group", "daemon"}, as_nobody("1"))) << errors();
    EXPECT_EQ(status_of("/dev/shm/shm/CAM_LOOP_0_0").st_gid, 1U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, daemon_of_an_unprivileged_user_cannot_serve_another_group) {
    const Ended ended =
        run({"--config", configuration(), "--group", "daemon", "--clean"}, as_nobody());
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find("group daemon: Operation not permitted; the user has to be in"),
              std::string::npos)
        << ended.errors;
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
}

// Nobody may look at such a queue, not even its owner, who may change it nevertheless.
TEST_F(Daemon_Access, unprivileged_daemon_gives_its_own_queue_without_permissions_some) {
    ASSERT_TRUE(start({}, as_nobody()));
    EXPECT_EQ(end(), 0);
    requests.set_mode(0);
    replies.set_mode(0);
    ASSERT_TRUE(start({}, as_nobody())) << errors();
    EXPECT_EQ(requests.status().mode, 0600U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, leftovers_of_another_user_are_named_and_refused) {
    ASSERT_TRUE(start());
    EXPECT_EQ(end(), 0);
    const Ended ended = run({"--config", configuration()}, as_nobody());
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find("/dev/shm/shm belongs to user 0, not to 65534; run as that user"),
              std::string::npos)
        << ended.errors;
}

TEST_F(Daemon_Access, root_takes_over_what_another_user_left) {
    ASSERT_TRUE(start({}, as_nobody()));
    daemon->kill();
    ASSERT_TRUE(start()) << errors();
    EXPECT_EQ(status_of("/dev/shm/shm").st_uid, 0U);
    EXPECT_EQ(status_of("/dev/shm/shm/CAM_LOOP_0_0").st_uid, 0U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, queues_of_another_user_are_named_and_refused) {
    requests.make();  // root's
    const Ended ended = run({"--config", configuration(), "--clean"}, as_nobody());
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find("request queue 0x"), std::string::npos) << ended.errors;
    EXPECT_NE(ended.errors.find("ipcrm -Q 0x"), std::string::npos);
}

TEST_F(Daemon_Access, small_limit_on_locked_memory_is_reported_once) {
    Words limited{"/usr/bin/prlimit", "--memlock=4096:4096"};
    const Words nobody = as_nobody();
    limited.insert(limited.end(), nobody.begin(), nobody.end());
    ASSERT_TRUE(start({}, limited));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(errors(),
              "zav-shm-centerd: warning: RLIMIT_MEMLOCK is 4096 bytes, the greatest segment has "
              "12288: segments are not locked into memory and may be swapped out; raise the limit "
              "(LimitMEMLOCK=, ulimit -l)\n");
}

// As the service file has it: a user of its own in the clients' group, without any capability.
TEST_F(Daemon_Access, a_user_without_capabilities_is_enough) {
    Words service{"/usr/bin/setpriv", "--no-new-privs", "--bounding-set=-all",
                  "--reuid=65534",    "--regid=1",      "--groups=1"};
    ASSERT_TRUE(start({"--group", "daemon"}, service)) << errors();
    expect_frames(as_nobody("1"));
    EXPECT_EQ(end(), 0);
}

// Clients of root that come before the center make queues and folders, and a center of root that
// was killed leaves all the rest. Who starts the service hands that over first.
TEST_F(Daemon_Access, what_others_made_is_handed_over) {
    ASSERT_TRUE(start());
    daemon->kill();
    EXPECT_EQ(run({"--config", configuration()}, as_nobody()).status, 1);
    const Ended ended = run({"--config", configuration(), "--hand-over", "nobody"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_EQ(ended.output, "");
    ASSERT_TRUE(start({}, as_nobody())) << errors();
    EXPECT_EQ(status_of("/dev/shm/shm").st_uid, 65534U);
    expect_frames(as_nobody());
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, handing_over_nothing_makes_nothing) {
    EXPECT_EQ(run({"--config", configuration(), "--hand-over", "nobody"}).status, 0);
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
    EXPECT_FALSE(requests.status().exists);
}

TEST_F(Daemon_Access, nothing_is_handed_over_under_a_center_that_runs) {
    ASSERT_TRUE(start());
    EXPECT_EQ(run({"--config", configuration(), "--hand-over", "nobody"}).status, 4);
    EXPECT_EQ(status_of("/dev/shm/shm").st_uid, 0U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Access, handing_over_needs_a_user_and_root) {
    const Ended unknown = run({"--config", configuration(), "--hand-over", "nobody_there"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.errors.find("there is no user \"nobody_there\""), std::string::npos);
    ASSERT_TRUE(start());
    EXPECT_EQ(end(), 0);
    const Ended unprivileged =
        run({"--config", configuration(), "--hand-over", "daemon"}, as_nobody());
    EXPECT_EQ(unprivileged.status, 1);
    EXPECT_NE(unprivileged.errors.find("; run as root"), std::string::npos) << unprivileged.errors;
}

// A link is given away itself, and not what it leads to.
TEST_F(Daemon_Access, handing_over_follows_no_link) {
    const std::string file = write_file("precious", "");
    fs::create_directories("/dev/shm/shm");
    fs::create_symlink(file, "/dev/shm/shm/center_page");
    EXPECT_EQ(run({"--config", configuration(), "--hand-over", "nobody"}).status, 0);
    EXPECT_EQ(status_of(file).st_uid, 0U);
    fs::remove_all("/dev/shm/shm");
}

}  // namespace
