// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <json/json.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include "control/center_page.h"
#include "daemon_fixture.h"
#include "ipc/zav_shm.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

const std::string register_player =
    R"({"command":"register","type":"Receiver","name":"PLAYER","pair_name":"CAM_LOOP",)"
    R"("channel":0,"stream":0})";

class Daemon_Life : public Daemon_Process {
protected:
    bool answers() const { return field_of(client.ask(farewell), "status") == "success"; }

    // Runs this in a process of its own.
    static bool survives(const std::function<void()>& action) {
        const pid_t pid = fork();
        if (pid == 0) {
            action();
            _exit(0);
        }
        int status = -1;
        return waitpid(pid, &status, 0) == pid && status == 0;
    }

    // Names below /dev/shm, folders included.
    static std::size_t names_left() {
        return static_cast<std::size_t>(
            std::distance(fs::recursive_directory_iterator("/dev/shm"), {}));
    }

    static Json::Value status_now() {
        Json::Value status;
        Json::CharReaderBuilder reader;
        const std::string text = content_of("/dev/shm/shm/center_status.json");
        const std::unique_ptr<Json::CharReader> parser(reader.newCharReader());
        EXPECT_TRUE(parser->parse(text.data(), text.data() + text.size(), &status, nullptr))
            << text;
        return status;
    }
};

// ---- start ----

TEST_F(Daemon_Life, start_prints_what_it_serves_in_one_line_and_answers) {
    ASSERT_TRUE(start());
    EXPECT_NE(start_line.find("(pid " + std::to_string(daemon->pid()) +
                              ") is ready and serves 12 producer and 28 consumer channels of " +
                              folder()),
              std::string::npos)
        << start_line;
    EXPECT_NE(start_line.find("mode 0600"), std::string::npos) << start_line;
    for (const std::string& line : lines_before) {
        EXPECT_TRUE(line.rfind("Mkdir ", 0) == 0 || line.rfind("Create SHM at ", 0) == 0) << line;
    }
    EXPECT_TRUE(answers());
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(daemon->read_rest(), "");
    EXPECT_EQ(errors(), "");
}

TEST_F(Daemon_Life, start_line_warns_of_names_that_are_refused_every_stream) {
    ASSERT_TRUE(start());
    EXPECT_NE(start_line.find("warning: producer \"SILENT\" is refused every stream"),
              std::string::npos)
        << start_line;
    EXPECT_NE(start_line.find("warning: consumer \"DEAF\" is refused every stream"),
              std::string::npos);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, start_reports_what_the_configuration_probably_does_not_mean) {
    std::string content = small_configuration;
    content.insert(content.find('{') + 1, R"("system": {},)");
    ASSERT_TRUE(start_with(content));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(errors(),
              "zav-shm-centerd: warning: the unknown key \"system\" is ignored; \"System\" is a "
              "known one\n");
}

// Else a lock or a segment would get the number of a standard stream.
TEST_F(Daemon_Life, starts_without_standard_streams) {
    const std::string path = configuration();
    daemon.emplace(Words{"/bin/sh", "-c", R"(exec "$@" 0<&- 1>&- 2>&-)", "sh", ZAV_TEST_CENTERD,
                         "--config", path, "--clean"});
    ASSERT_TRUE(becomes_true([] { return zav_shm::read_center_page("/shm").has_value(); }));
    for (const char* stream : {"0", "1", "2"}) {
        EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(daemon->pid()) + "/fd/" + stream),
                  "/dev/null");
    }
    EXPECT_TRUE(answers());
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, without_a_file_serves_the_defaults_and_warns_that_all_are_refused) {
    daemon.emplace(command({"--clean"}));
    std::optional<std::string> line;
    while ((line = daemon->read_line()) && line->rfind("zav-shm-centerd ", 0) != 0) {
    }
    ASSERT_TRUE(line.has_value()) << errors();
    EXPECT_NE(line->find("34 producer and 52 consumer channels of the built-in defaults"),
              std::string::npos)
        << *line;
    EXPECT_NE(line->find("warning: all clients are refused every stream"), std::string::npos);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, follows_a_killed_one) {
    ASSERT_TRUE(start());
    daemon->kill();
    const auto page_of_the_killed = zav_shm::read_center_page("/shm");
    ASSERT_TRUE(page_of_the_killed.has_value());
    ASSERT_TRUE(start()) << errors();
    EXPECT_TRUE(answers());
    EXPECT_NE(zav_shm::read_center_page("/shm")->epoch, page_of_the_killed->epoch);
    EXPECT_EQ(end(), 0);
}

// Cutting them off would kill whoever has them mapped, at the next frame.
TEST_F(Daemon_Life, with_smaller_pages_leaves_the_former_segments_to_those_who_have_them) {
    ASSERT_TRUE(start());
    const IPC_SHMEMORY former("/shm/CAM_LOOP_0_1", O_RDWR);
    ASSERT_EQ(former.size, 8192U + 128U);
    daemon->kill();
    std::string content = small_configuration;
    content.replace(content.find("8192"), 4, "1024");
    ASSERT_TRUE(start_with(content)) << errors();
    EXPECT_EQ(
        errors(),
        "zav-shm-centerd: segments of another length are replaced: 6; clients keep the former "
        "ones until they register again\n");
    EXPECT_TRUE(
        survives([&former] { static_cast<char*>(former.mem_addr)[former.size - 1] = 'x'; }));
    const IPC_SHMEMORY found("/shm/CAM_LOOP_0_1", O_RDONLY);
    EXPECT_EQ(found.size, 1024U + 128U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, killed_one_leaves_page_status_and_locks) {
    ASSERT_TRUE(start());
    daemon->kill();
    announce_files_of_a_killed_one();
}

// ---- end ----

TEST_F(Daemon_Life, each_ending_signal_ends_it_within_a_second_with_0) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ASSERT_TRUE(start());
        const Stopwatch watch;
        EXPECT_EQ(end(signal), 0) << signal;
        EXPECT_LT(watch.elapsed(), milliseconds(1000)) << signal;
    }
}

TEST_F(Daemon_Life, other_signals_do_nothing) {
    ASSERT_TRUE(start());
    for (const int signal : {SIGUSR1, SIGUSR2, SIGPIPE, SIGURG}) {
        daemon->signal(signal);
    }
    EXPECT_TRUE(answers());
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, ends_within_a_second_although_consumers_are_registered) {
    ASSERT_TRUE(start());
    for (int channel = 0; channel < 4; ++channel) {
        for (const char* name : {"PLAYER", "REMOTE_LOOP"}) {
            EXPECT_EQ(field_of(client.ask(R"({"command":"register","type":"Receiver","name":")" +
                                          std::string(name) +
                                          R"(","pair_name":"CAM_LOOP","stream":1,"channel":)" +
                                          std::to_string(channel) + "}"),
                               "status"),
                      "success");
        }
    }
    const Stopwatch watch;
    EXPECT_EQ(end(), 0);
    EXPECT_LT(watch.elapsed(), milliseconds(1000));
}

TEST_F(Daemon_Life, ended_one_leaves_segments_semaphores_and_queues_but_no_page) {
    ASSERT_TRUE(start());  // announces the former, and nothing else
    EXPECT_TRUE(exists("shm/center_page"));
    EXPECT_TRUE(exists("shm/center_lock"));
    EXPECT_EQ(end(), 0);
    EXPECT_TRUE(requests.status().exists);
    EXPECT_TRUE(replies.status().exists);
}

TEST_F(Daemon_Life, with_clean_leaves_nothing) {
    ASSERT_TRUE(start({"--clean"}));
    EXPECT_TRUE(answers());
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(names_left(), 0U);
    EXPECT_FALSE(requests.status().exists);
    EXPECT_FALSE(replies.status().exists);
}

TEST_F(Daemon_Life, with_clean_removes_what_a_killed_one_left) {
    ASSERT_TRUE(start({"--clean"}));
    daemon->kill();
    ASSERT_TRUE(start({"--clean"}));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(names_left(), 0U);
}

TEST_F(Daemon_Life, with_clean_leaves_what_others_made) {
    make_folder("shm");
    for (const char* name : {"shm/OTHER_0_0", "sem.SRC_OTHER_SEM_0_0_0", "unrelated"}) {
        leaves_segment(name);
        fs::remove(std::string("/dev/shm/") + name);
        ASSERT_EQ(mknod((std::string("/dev/shm/") + name).c_str(), S_IFREG | 0600, 0), 0);
    }
    ASSERT_TRUE(start({"--clean"}));
    EXPECT_EQ(end(), 0);
}

// ---- semaphores that were not finished ----

class Unfinished_Semaphores : public Daemon_Life {
protected:
    // As the C library makes one before it gives it its name.
    static std::string make(const std::string& letters, std::chrono::seconds age,
                            unsigned posts = 0) {
        const std::string name = "/" + letters;
        sem_t* const made = sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, posts);
        EXPECT_NE(made, SEM_FAILED);
        sem_close(made);
        return aged("/dev/shm/sem." + letters, age);
    }
    static std::string aged(const std::string& path, std::chrono::seconds age) {
        fs::last_write_time(path, fs::file_time_type::clock::now() - age);
        return path;
    }
    static constexpr std::chrono::seconds old{61};
};

TEST_F(Unfinished_Semaphores, go_at_the_start) {
    const std::string path = make("8wPoaq", old);
    ASSERT_TRUE(start());
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(end(), 0);
}

TEST_F(Unfinished_Semaphores, go_with_clean) {
    ASSERT_TRUE(start({"--clean"}));
    make("8wPoaq", old);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(names_left(), 0U);
}

TEST_F(Unfinished_Semaphores, go_when_nothing_has_been_written_yet) {
    const std::string path = make("8wPoaq", old);
    fs::resize_file(path, 0);
    aged(path, old);
    ASSERT_TRUE(start());
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(end(), 0);
}

// Killed between the two names, a center leaves both, whatever is done with the semaphore later.
TEST_F(Unfinished_Semaphores, lose_the_first_of_two_names) {
    ASSERT_TRUE(start({"--clean"}));
    daemon->kill();
    const std::string named = "/dev/shm/sem.DST_PLAYER_SEM_0_0_1";
    const std::string path = "/dev/shm/sem.8wPoaq";
    fs::create_hard_link(named, path);
    sem_t* const used = sem_open("/DST_PLAYER_SEM_0_0_1", 0);
    ASSERT_NE(used, SEM_FAILED);
    sem_post(used);
    ASSERT_TRUE(start({"--clean"}));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(fs::exists(named));
    EXPECT_EQ(end(), 0);
    sem_close(used);
    EXPECT_EQ(names_left(), 0U);
}

TEST_F(Unfinished_Semaphores, stay_while_they_may_become_whole) {
    const std::string path = make("8wPoaq", std::chrono::seconds(50));
    ASSERT_TRUE(start({"--clean"}));
    EXPECT_EQ(end(), 0);
    EXPECT_TRUE(fs::remove(path));
}

// They are somebody's, though they are called like this.
TEST_F(Unfinished_Semaphores, are_told_from_others) {
    const std::string posted = make("posted", old, 1);
    const std::string longer = make("longer1", old);
    const std::string in_use = make("in1use", old);
    sem_t* const used = sem_open("/in1use", 0);
    ASSERT_NE(used, SEM_FAILED);
    const std::string of_other_length = make("length", old);
    fs::resize_file(of_other_length, sizeof(sem_t) + 1);
    aged(of_other_length, old);
    const std::string of_other_names = make("linked", old, 1);
    fs::create_hard_link(of_other_names, "/dev/shm/another");
    const std::string of_other_user = make("user12", old);
    ASSERT_EQ(chown(of_other_user.c_str(), 65534, 65534) == 0 || geteuid() != 0, true);
    ASSERT_TRUE(start({"--clean"}));
    EXPECT_EQ(end(), 0);
    sem_close(used);
    EXPECT_TRUE(fs::remove(posted));
    EXPECT_TRUE(fs::remove(longer));
    EXPECT_TRUE(fs::remove(in_use));
    EXPECT_TRUE(fs::remove(of_other_length));
    EXPECT_TRUE(fs::remove(of_other_names));
    EXPECT_TRUE(fs::remove("/dev/shm/another"));
    EXPECT_TRUE(fs::remove(of_other_user) || geteuid() != 0);
}

// ---- idle kick ----

TEST_F(Daemon_Life, unpairs_an_idle_consumer_in_its_interval_when_the_configuration_says_so) {
    std::string content = small_configuration;
    content.insert(content.find('{') + 1, R"("System": {"kick_idle": true},)");
    ASSERT_TRUE(start_with(content, {"--kick-interval", "2.5"}));
    ASSERT_EQ(field_of(client.ask(register_player), "status"), "success");
    EXPECT_TRUE(becomes_true([] { return status_now()["channels"][0]["consumers"].size() == 1; }));
    EXPECT_TRUE(becomes_true([] { return status_now()["channels"][0]["consumers"].empty(); }));
    EXPECT_TRUE(status_now()["kick_idle"].asBool());
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, keeps_idle_consumers_unless_told_otherwise_and_lets_clients_change_that) {
    ASSERT_TRUE(start({"--kick-interval", "0.1"}));
    ASSERT_EQ(field_of(client.ask(register_player), "status"), "success");
    ASSERT_TRUE(becomes_true(
        [] { return status_now()["channels"][0]["consumers"][0]["missed_in_row"].asInt() > 20; }));
    EXPECT_FALSE(status_now()["kick_idle"].asBool());
    client.send(R"({"command":"kick_idle","enable":true})");
    EXPECT_TRUE(becomes_true([] { return status_now()["kick_idle"].asBool(); }));
    EXPECT_TRUE(becomes_true([] { return status_now()["channels"][0]["consumers"].empty(); }));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, with_interval_0_never_kicks) {
    std::string content = small_configuration;
    content.insert(content.find('{') + 1, R"("System": {"kick_idle": true},)");
    ASSERT_TRUE(start_with(content, {"--kick-interval", "0"}));
    EXPECT_NE(start_line.find("idle kick never"), std::string::npos);
    ASSERT_EQ(field_of(client.ask(register_player), "status"), "success");
    EXPECT_TRUE(becomes_true(
        [] { return status_now()["channels"][0]["consumers"][0]["missed_in_row"].asInt() > 20; }));
    EXPECT_EQ(end(), 0);
}

// ---- page and status ----

TEST_F(Daemon_Life, page_names_process_and_start) {
    ASSERT_TRUE(start());
    const auto page = zav_shm::read_center_page("/shm");
    ASSERT_TRUE(page.has_value());
    EXPECT_EQ(page->pid, static_cast<std::uint32_t>(daemon->pid()));
    EXPECT_EQ(page->semaphore_bytes, fs::file_size("/dev/shm/sem.SRC_CAM_LOOP_SEM_0_0_0"));
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto started = std::chrono::nanoseconds(page->started_utc_ns);
    EXPECT_LT(now - started, std::chrono::minutes(1));
    EXPECT_GE(now, started);
    EXPECT_EQ(end(), 0);
    EXPECT_FALSE(zav_shm::read_center_page("/shm").has_value());
}

TEST_F(Daemon_Life, status_describes_center_and_channels) {
    ASSERT_TRUE(start());
    const Json::Value status = status_now();
    EXPECT_EQ(status["pid"].asInt(), daemon->pid());
    EXPECT_EQ(status["epoch"].asUInt64(), zav_shm::read_center_page("/shm")->epoch);
    EXPECT_EQ(status["version"].asString(), ZAV_SHM_VERSION);
    EXPECT_EQ(status["configuration"].asString(), folder() + "/zav_shm.json");
    EXPECT_EQ(status["started_utc"].asString().size(), 20U);
    ASSERT_EQ(status["channels"].size(), 12U);
    const Json::Value& channel = status["channels"][1];
    EXPECT_EQ(channel["name"].asString(), "CAM_LOOP");
    EXPECT_EQ(channel["channel"].asInt(), 0);
    EXPECT_EQ(channel["stream"].asInt(), 1);
    for (const char* count : {"cycles", "frames", "presence_timeouts", "frame_timeouts",
                              "read_timeouts", "late_read_timeouts", "live"}) {
        EXPECT_TRUE(channel[count].isInt()) << count;
    }
    EXPECT_TRUE(channel["consumers"].isArray());
    const Json::Value& names = status["names"];
    ASSERT_EQ(names["distributors"].size(), 3U);
    ASSERT_EQ(names["receivers"].size(), 3U);
    EXPECT_EQ(names["distributors"][0]["name"].asString(), "CAM_LOOP");
    EXPECT_EQ(names["distributors"][0]["channels"].asInt(), 4);
    EXPECT_EQ(names["distributors"][0]["streams"][1]["page_size"].asInt(), 8192);
    EXPECT_EQ(names["receivers"][2]["name"].asString(), "DEAF");
    EXPECT_TRUE(names["receivers"][2]["streams"].empty());
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Life, status_follows_the_consumers_within_seconds) {
    ASSERT_TRUE(start());
    ASSERT_EQ(field_of(client.ask(register_player), "status"), "success");
    EXPECT_TRUE(becomes_true([] {
        const Json::Value channel = status_now()["channels"][0];
        return channel["consumers"].size() == 1 && channel["cycles"].asUInt64() > 0 &&
               channel["presence_timeouts"].asUInt64() > 0 &&
               channel["late_read_timeouts"].asUInt64() > 0 &&
               channel["consumers"][0]["name"].asString() == "PLAYER" &&
               channel["consumers"][0]["missed_in_row"].asInt() > 1;
    }));
    EXPECT_EQ(end(), 0);
}

// ---- queues that somebody removes ----

TEST_F(Daemon_Life, gives_removed_queues_their_permissions_again) {
    ASSERT_TRUE(start({"--mode", "0666"}));
    requests.remove();
    replies.remove();
    EXPECT_TRUE(becomes_true(
        [this] { return requests.status().mode == 0666 && replies.status().mode == 0666; }));
    EXPECT_TRUE(answers());
    EXPECT_EQ(end(), 0);
}

}  // namespace
