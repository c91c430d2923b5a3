// SPDX-License-Identifier: Apache-2.0
//
// What the daemon does for rings: their folder, who may use it, who reads them, what is left of
// them, and that frames need it for nothing.
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "control/center_page.h"
#include "daemon_fixture.h"
#include "other_memory_folder.h"
#include "support/pid_namespace.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* rings = "/dev/shm/shm/rings";
constexpr const char* long_history = "1000000";  // 15 s

class Daemon_Rings : public Daemon_Process {
protected:
    // Publishers leave their histories, on purpose.
    void TearDown() override {
        daemon.reset();
        fs::remove_all(rings);
        Daemon_Process::TearDown();
    }

    static Child_Process client_process(const Words& role, Words before = {}) {
        before.emplace_back(ZAV_TEST_RING_CLIENT);
        before.insert(before.end(), role.begin(), role.end());
        return Child_Process(before);
    }
    static Child_Process publisher(const Words& before = {}) {
        return client_process({"publish", "CAM_LOOP", long_history}, before);
    }
    static Child_Process subscriber(const std::string& name = "PLAYER", const Words& before = {}) {
        return client_process({"subscribe", name, "CAM_LOOP"}, before);
    }
    // The same, at work already.
    static Child_Process publishing(const Words& before = {}) {
        Child_Process camera = publisher(before);
        EXPECT_EQ(camera.read_line(), "ready");
        return camera;
    }
    static Child_Process receiving(const std::string& name = "PLAYER", const Words& before = {}) {
        Child_Process player = subscriber(name, before);
        EXPECT_EQ(player.read_line(), "ready");
        EXPECT_EQ(player.read_line(), "first");
        return player;
    }

    // Ends the process in order.
    static std::string account_of(Child_Process& process) {
        process.signal(SIGTERM);
        return process.read_rest();
    }

    static long number_in(const std::string& account, const std::string& name) {
        const std::size_t at = account.find(name + "=");
        return at == std::string::npos ? -1 : std::stol(account.substr(at + name.size() + 1));
    }

    // What was published since the subscriber came was received, all of it.
    static void expect_no_loss(Child_Process& publisher, Child_Process& subscriber) {
        const std::string published = account_of(publisher);
        const std::string received = account_of(subscriber);
        EXPECT_EQ(number_in(published, "not"), 0) << published;
        EXPECT_EQ(number_in(received, "missing"), 0) << received;
        EXPECT_EQ(number_in(received, "lost"), 0) << received;
        EXPECT_EQ(number_in(received, "last"), number_in(published, "published"))
            << published << received;
    }

    static unsigned mode_of(const std::string& path) {
        struct stat found {};
        EXPECT_EQ(stat(path.c_str(), &found), 0) << path;
        return found.st_mode & 07777U;
    }
    static gid_t group_of(const std::string& path) {
        struct stat found {};
        EXPECT_EQ(stat(path.c_str(), &found), 0) << path;
        return found.st_gid;
    }

    static std::size_t files_that_end_with(const std::string& ending) {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(rings)) {
            count += entry.path().string().ends_with(ending) ? 1U : 0U;
        }
        return count;
    }

    static Json::Value ring_consumers() {
        Json::Value status;
        const std::string text = content_of("/dev/shm/shm/center_status.json");
        const std::unique_ptr<Json::CharReader> parser(Json::CharReaderBuilder().newCharReader());
        parser->parse(text.data(), text.data() + text.size(), &status, nullptr);
        return status["ring_consumers"];
    }
    static Json::Value ring_consumer(const std::string& name) {
        for (const Json::Value& consumer : ring_consumers()) {
            if (consumer["consumer"] == name) {
                return consumer;
            }
        }
        return {};
    }

    bool reports(const std::string& text) const { return errors().find(text) != errors().npos; }
};

// ---- the folder ----

TEST_F(Daemon_Rings, folder_has_the_mode_that_its_clients_need) {
    ASSERT_TRUE(start());
    EXPECT_EQ(mode_of(rings), 0700U);
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start({"--group", "daemon"}));
    EXPECT_EQ(mode_of(rings), 03770U);
    EXPECT_EQ(group_of(rings), 1U);
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start({"--mode", "0666"}));
    EXPECT_EQ(mode_of(rings), 03777U);
    EXPECT_EQ(end(), 0);
    ASSERT_TRUE(start());
    EXPECT_EQ(mode_of(rings), 0700U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings, folder_that_is_removed_is_made_again) {
    ASSERT_TRUE(start({"--mode", "0666"}));
    const auto epoch = zav_shm::read_center_page("/shm")->epoch;
    fs::remove_all(rings);
    EXPECT_TRUE(becomes_true([] { return fs::is_directory(rings) && mode_of(rings) == 03777U; }));
    EXPECT_TRUE(becomes_true([this] {
        return reports("folder /dev/shm/shm/rings was removed or replaced; it is made again");
    }));
    EXPECT_EQ(zav_shm::read_center_page("/shm")->epoch, epoch);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings, what_cannot_be_a_folder_is_reported_once) {
    ASSERT_TRUE(start());
    fs::remove_all(rings);
    std::ofstream(rings) << "x";
    EXPECT_TRUE(becomes_true([this] { return reports("cannot be made again"); }));
    std::this_thread::sleep_for(2500ms);
    const std::string told = errors();
    EXPECT_EQ(told.find("cannot be made again"), told.rfind("cannot be made again")) << told;
    fs::remove(rings);
    EXPECT_TRUE(becomes_true([] { return fs::is_directory(rings); }));
    EXPECT_EQ(end(), 0);
}

// ---- other users ----

class Daemon_Rings_Of_Others : public Daemon_Rings {
protected:
    void SetUp() override {
        Daemon_Rings::SetUp();
        if (!there_is_nobody()) {
            GTEST_SKIP() << "needs a second user who may run the program";
        }
    }
};

// Root's ring, read by nobody, and the other way round.
TEST_F(Daemon_Rings_Of_Others, users_of_the_group_read_each_others_rings) {
    ASSERT_TRUE(start({"--group", "daemon"}));
    for (const bool publisher_is_nobody : {true, false}) {
        const Words nobody = as_nobody("1");
        const Words own;
        auto camera = publishing(publisher_is_nobody ? nobody : own);
        auto player = receiving("PLAYER", publisher_is_nobody ? own : nobody);
        EXPECT_EQ(files_that_end_with(".reader"), 1U);
        EXPECT_EQ(mode_of(std::string(rings) + "/CAM_LOOP_0_0"), 0640U);
        EXPECT_EQ(group_of(std::string(rings) + "/CAM_LOOP_0_0"), 1U);
        auto asking = client_process({"ask", "CAM_LOOP"}, publisher_is_nobody ? own : nobody);
        EXPECT_EQ(asking.read_line(), "asked");
        EXPECT_EQ(camera.read_line(), "asked for a key frame");
        expect_no_loss(camera, player);
        fs::remove_all(std::string(rings) + "/CAM_LOOP_0_0.lock");  // 0600, of the other user
    }
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings_Of_Others, everybody_reads_when_everybody_may) {
    ASSERT_TRUE(start({"--mode", "0666"}));
    auto camera = publishing();
    auto player = receiving("PLAYER", as_nobody());
    EXPECT_EQ(files_that_end_with(".reader"), 1U);
    auto asking = client_process({"ask", "CAM_LOOP"}, as_nobody());
    EXPECT_EQ(asking.read_line(), "asked");
    expect_no_loss(camera, player);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings_Of_Others, cards_of_killed_readers_of_other_users_are_swept) {
    ASSERT_TRUE(start({"--group", "daemon"}));
    auto camera = publishing();
    auto player = receiving("PLAYER", as_nobody("1"));
    player.kill();
    EXPECT_EQ(files_that_end_with(".reader"), 1U);
    EXPECT_TRUE(becomes_true([] { return files_that_end_with(".reader") == 0; }));
    EXPECT_EQ(end(), 0);
}

// The kernel leaves the bit out without a word.
TEST_F(Daemon_Rings_Of_Others, folder_that_would_not_hand_its_group_on_is_refused) {
    const Ended ended = run({"--config", configuration(), "--group", "daemon", "--clean"},
                            {"/usr/bin/setpriv", "--bounding-set=-fsetid"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find("folder /dev/shm/shm/rings has mode 1770, not 3770; the user has "
                                "to be in that group, or to have CAP_FSETID"),
              std::string::npos)
        << ended.errors;
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
}

// ---- who reads ----

TEST_F(Daemon_Rings, status_shows_each_reader_with_its_account) {
    ASSERT_TRUE(start());
    EXPECT_EQ(ring_consumers(), Json::Value(Json::arrayValue));
    auto camera = publishing();
    auto player = subscriber();
    auto tap = subscriber("-");
    ASSERT_EQ(player.read_line(), "ready");
    ASSERT_EQ(tap.read_line(), "ready");
    ASSERT_TRUE(becomes_true([] { return ring_consumer("PLAYER")["received"].asInt() > 10; }));
    ASSERT_TRUE(becomes_true([] { return ring_consumer("")["received"].asInt() > 10; }));
    const Json::Value seen = ring_consumer("PLAYER");
    EXPECT_EQ(seen["producer"], "CAM_LOOP");
    EXPECT_EQ(seen["channel"], 0);
    EXPECT_EQ(seen["stream"], 0);
    EXPECT_EQ(seen["pid"].asInt(), player.pid());
    EXPECT_EQ(seen["lost"], 0);
    EXPECT_EQ(seen["overtaken"], 0);
    EXPECT_EQ(seen["tap"], false);
    EXPECT_EQ(ring_consumer("")["tap"], true);
    EXPECT_EQ(ring_consumers().size(), 2U);

    // One that stands still falls behind, and catches up.
    player.signal(SIGSTOP);
    EXPECT_TRUE(becomes_true([] { return ring_consumer("PLAYER")["behind"].asInt() > 100; }));
    player.signal(SIGCONT);
    EXPECT_TRUE(becomes_true([] {
        const Json::Value behind = ring_consumer("PLAYER")["behind"];
        return behind.isInt() && behind.asInt() < 10;
    }));
    account_of(tap);
    expect_no_loss(camera, player);
    EXPECT_TRUE(becomes_true([] { return ring_consumers().empty(); }));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings, killed_readers_are_swept_and_the_living_are_not) {
    ASSERT_TRUE(start());
    auto camera = publishing();
    auto living = subscriber();
    ASSERT_EQ(living.read_line(), "ready");
    auto killed = subscriber("REMOTE_LOOP");
    ASSERT_EQ(killed.read_line(), "ready");
    auto stopped = subscriber("-");
    ASSERT_EQ(stopped.read_line(), "ready");
    stopped.signal(SIGSTOP);
    ASSERT_TRUE(becomes_true([] { return ring_consumers().size() == 3; }));
    EXPECT_TRUE(fs::exists(std::string(rings) + "/REMOTE_LOOP_0_0.route"));
    killed.kill();
    EXPECT_TRUE(becomes_true([] { return ring_consumers().size() == 2; }));
    EXPECT_TRUE(becomes_true([] { return files_that_end_with(".reader") == 2; }));
    EXPECT_TRUE(becomes_true([] { return files_that_end_with(".route") == 1; }));
    EXPECT_TRUE(fs::exists(std::string(rings) + "/PLAYER_0_0.route"));
    std::this_thread::sleep_for(3s);  // several looks
    EXPECT_EQ(files_that_end_with(".reader"), 2U);
    EXPECT_EQ(files_that_end_with(".route"), 1U);
    stopped.signal(SIGCONT);
    EXPECT_EQ(number_in(account_of(stopped), "missing"), 0);
    expect_no_loss(camera, living);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings, what_a_reader_left_that_was_killed_at_its_begin_is_swept) {
    ASSERT_TRUE(start());
    std::ofstream(std::string(rings) + "/0123456789abcdef.reader.new") << "x";
    std::ofstream(std::string(rings) + "/0123456789abcdef.reader") << "no card";
    fs::create_symlink("/etc/passwd", std::string(rings) + "/0123456789abcde0.reader");
    fs::create_directory(std::string(rings) + "/0123456789abcde1.reader");
    EXPECT_TRUE(becomes_true([] {
        return !fs::exists(std::string(rings) + "/0123456789abcdef.reader.new") &&
               !fs::exists(std::string(rings) + "/0123456789abcdef.reader");
    }));
    EXPECT_EQ(ring_consumers().size(), 0U);
    EXPECT_TRUE(fs::exists("/etc/passwd"));
    EXPECT_EQ(end(), 0);
}

// A lock is seen from everywhere, a process is not.
TEST_F(Daemon_Rings, reader_in_another_pid_namespace_lives) {
    ASSERT_TRUE(start());
    auto camera = publishing();
    auto player = receiving("PLAYER", {"/usr/bin/unshare", "--pid", "--fork", "--kill-child"});
    std::this_thread::sleep_for(4s);
    EXPECT_EQ(files_that_end_with(".reader"), 1U);
    EXPECT_EQ(files_that_end_with(".route"), 1U);
    const Json::Value seen = ring_consumer("PLAYER");
    EXPECT_EQ(seen["pid"], 1);
    EXPECT_GT(seen["received"].asInt(), 200);
    player.kill();  // and with it who reads
    EXPECT_TRUE(becomes_true([] { return files_that_end_with(".reader") == 0; }));
    EXPECT_TRUE(becomes_true([] { return files_that_end_with(".route") == 0; }));
    EXPECT_EQ(end(), 0);
}

// ---- a daemon that ends or is killed ----

TEST_F(Daemon_Rings, frames_go_on_while_the_daemon_is_killed_and_started_again) {
    ASSERT_TRUE(start());
    auto camera = publishing();
    auto player = receiving();
    const std::string smaller = [] {
        std::string content = small_configuration;
        return content.replace(content.find("4096"), 4, "1024");
    }();
    for (const std::string& content : {std::string(small_configuration), smaller}) {
        daemon->kill();
        std::this_thread::sleep_for(1s);
        ASSERT_TRUE(start_with(content)) << errors();
        EXPECT_TRUE(becomes_true([] { return !ring_consumer("PLAYER").isNull(); }));
        std::this_thread::sleep_for(2s);
    }
    EXPECT_TRUE(becomes_true([] { return files_that_end_with(".route") == 1; }));
    expect_no_loss(camera, player);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings, frames_go_on_while_the_center_is_made_anew) {
    ASSERT_TRUE(start());
    auto camera = publishing();
    auto player = receiving();
    fs::remove("/dev/shm/sem.DST_PLAYER_SEM_0_0_1");
    EXPECT_TRUE(becomes_true([this] { return reports("; the center is made anew, and"); }));
    std::this_thread::sleep_for(3s);
    expect_no_loss(camera, player);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Rings, clean_removes_what_the_dead_left) {
    ASSERT_TRUE(start({"--clean"}));
    auto camera = publishing();
    auto player = receiving();
    player.kill();
    camera.kill();
    std::ofstream(std::string(rings) + "/CAM_REC_0_0.new") << "half";
    std::ofstream(std::string(rings) + "/PLAYER_3_0.route.new") << "half";
    EXPECT_EQ(end(), 0);
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
}

TEST_F(Daemon_Rings, clean_leaves_what_the_living_use) {
    ASSERT_TRUE(start({"--clean"}));
    auto camera = publishing();
    auto player = receiving();
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(files_that_end_with("CAM_LOOP_0_0"), 1U);
    EXPECT_EQ(files_that_end_with(".lock"), 1U);
    EXPECT_EQ(files_that_end_with(".reader"), 1U);
    ASSERT_TRUE(start());
    EXPECT_TRUE(becomes_true([] { return files_that_end_with(".route") == 1; }));
    auto late = subscriber("REMOTE_LOOP");
    ASSERT_EQ(late.read_line(), "ready");
    EXPECT_EQ(late.read_line(), "first");
    account_of(late);
    expect_no_loss(camera, player);
    EXPECT_EQ(end(), 0);
}

// ---- room ----

using Daemon_Ring_Room = Other_Memory_Folder<Daemon_Rings>;

// As docs/configuration.md reckons it.
TEST_F(Daemon_Ring_Room, small_device_has_room_for_four_streams) {
    give_room("size=" + std::to_string(950'272 + 3'325'952));
    const Ended planned = run({"--config", ZAV_TEST_SMALL_DEVICE, "--check"});
    EXPECT_EQ(planned.status, 0) << planned.errors;
    EXPECT_EQ(planned.output.find("warning: "), std::string::npos) << planned.output;
    for (const char* part : {"segments       4 in /dev/shm/shm, 671744 bytes",
                             "semaphores     48 in /dev/shm, 196608 bytes",
                             "rings          up to 4 in /dev/shm/shm/rings, 3194880 bytes",
                             "room           950272 bytes more are needed, 4276224 are available",
                             "for clients    up to 3325952 bytes and 36 files more"}) {
        EXPECT_NE(planned.output.find(part), std::string::npos) << part << planned.output;
    }
}

TEST_F(Daemon_Ring_Room, memory_page_less_than_the_sum_is_too_little) {
    give_room("size=" + std::to_string(950'272 + 3'325'952 - 4096));
    const Ended planned = run({"--config", ZAV_TEST_SMALL_DEVICE, "--check"});
    EXPECT_EQ(planned.status, 0) << planned.errors;
    EXPECT_NE(planned.output.find("warning: /dev/shm has 4272128 bytes available, 4276224 are "
                                  "needed when all publishers and subscribers come; "),
              std::string::npos)
        << planned.output;
}

// The fixed interface needs no ring, so it serves; and says what will be lacking.
TEST_F(Daemon_Ring_Room, too_little_for_all_rings_is_told_before_they_come) {
    give_room("size=1m");
    const Ended planned = run({"--config", configuration(), "--check"});
    EXPECT_EQ(planned.status, 0) << planned.errors;
    EXPECT_NE(planned.output.find("warning: /dev/shm has 1048576 bytes available, "),
              std::string::npos)
        << planned.output;
    EXPECT_NE(planned.output.find("smaller histories (history_bytes)"), std::string::npos);
    ASSERT_TRUE(start()) << errors();
    EXPECT_TRUE(reports("are needed when all publishers and subscribers come; enlarge it"));
    EXPECT_EQ(end(), 0);
}

// What the plan says is what they take.
TEST_F(Daemon_Ring_Room, plan_counts_what_clients_take) {
    ASSERT_TRUE(start());
    const Ended planned = run({"--config", configuration(), "--check"});  // status 4
    auto camera = client_process({"publish", "CAM_LOOP", "0"});
    ASSERT_EQ(camera.read_line(), "ready");
    const auto bytes = fs::file_size(std::string(rings) + "/CAM_LOOP_0_0");
    // Header, index of 64 records, two pages and one more with its header.
    EXPECT_EQ(bytes, 4096U + 4096U + 2U * 4096U + 4096U + 128U);
    // 24576 bytes in memory, and 36864 of stream 1; of each 6.
    EXPECT_NE(planned.output.find("368640 bytes; publishers make them"), std::string::npos)
        << planned.output;
    EXPECT_EQ(end(), 0);
    account_of(camera);
}

}  // namespace
