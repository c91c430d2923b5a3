// SPDX-License-Identifier: Apache-2.0
//
// What the daemon refuses, with which exit status and words, and the plan that it prints instead of
// starting.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "daemon_fixture.h"
#include "ipc/zav_shm.h"
#include "other_memory_folder.h"

namespace {

namespace fs = std::filesystem;
using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;

long lines_in(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

std::string sized_configuration(const std::string& system, int page_size = 4096) {
    return "{" + system + R"("Stream": [{"index": 0, "page_size": )" + std::to_string(page_size) +
           R"(}], "Distributor": [{"name": "CAM_LOOP", "channel": 2, "stream": [0]}],)"
           R"("Receiver": [{"name": "PLAYER", "channel": 2, "stream": [0]}]})";
}

class Daemon_Refusal : public Daemon_Process {
protected:
    // Ended with this status and one line of error that has all these parts.
    static AssertionResult refused(const Ended& ended, int status, const Words& parts) {
        if (ended.status != status || lines_in(ended.errors) != 1 ||
            ended.errors.rfind("zav-shm-centerd: ", 0) != 0) {
            return AssertionFailure()
                   << "status " << ended.status.value_or(-1) << ", errors: " << ended.errors;
        }
        for (const std::string& part : parts) {
            if (ended.errors.find(part) == std::string::npos) {
                return AssertionFailure() << "no \"" << part << "\" in: " << ended.errors;
            }
        }
        return AssertionSuccess();
    }

    Words with(const std::string& content, const Words& more = {}) const {
        Words arguments{"--config", configuration(content)};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
};

// ---- command line ----

TEST_F(Daemon_Refusal, help_and_version_are_printed_and_end_with_0) {
    const Ended help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--config", "--check", "--kick-interval", "--group", "--mode",
                               "--clean", "--version", "Exit status"}) {
        EXPECT_NE(help.output.find(option), std::string::npos) << option;
    }
    const Ended version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output, "zav-shm-centerd " ZAV_SHM_VERSION "\n");
}

TEST_F(Daemon_Refusal, mistakes_of_usage_end_with_2_and_name_argument_and_value) {
    EXPECT_TRUE(refused(run({"--bogus"}), 2, {"--bogus", "--help"}));
    EXPECT_TRUE(refused(run({"--kick-interval", "-1"}), 2, {"--kick-interval", "-1", "86400"}));
    for (const char* text : {"soon", "nan", "inf", "-nan", "1s", ""}) {
        EXPECT_TRUE(refused(run({"--kick-interval", text}), 2, {"--kick-interval", text}));
    }
    EXPECT_TRUE(refused(run({"--mode", "0640"}), 2, {"--mode", "0640", "0660"}));
    EXPECT_TRUE(refused(run({"--mode", "rw"}), 2, {"--mode", "rw"}));
    EXPECT_TRUE(refused(run({"--config"}), 2, {"--config"}));
    EXPECT_TRUE(refused(run({"--config", ""}), 2, {"--config", "empty"}));
    EXPECT_TRUE(refused(run({"--group", "no_such_group"}), 2, {"no_such_group", "groupadd"}));
}

// ---- configuration ----

TEST_F(Daemon_Refusal, missing_file_ends_with_3) {
    EXPECT_TRUE(refused(run({"--config", "/nowhere/zav.json"}), 3,
                        {": cannot open /nowhere/zav.json: No such file", "--config takes"}));
    EXPECT_TRUE(refused(run({"--config", folder()}), 3,
                        {": cannot read " + folder() + ": Is a directory", "--config takes"}));
}

TEST_F(Daemon_Refusal, broken_file_ends_with_3_and_tells_where) {
    EXPECT_TRUE(refused(run(with("{\n  \"Stream\": [1,,2]}")), 3, {"zav_shm.json: line 2"}));
    EXPECT_TRUE(refused(run(with("{}")), 3, {"Stream"}));
    EXPECT_TRUE(refused(run(with("\xEF\xBB\xBF{}")), 3,
                        {"zav_shm.json: the text begins with a byte "
                         "order mark"}));
}

TEST_F(Daemon_Refusal, warnings_stand_beside_the_mistake_that_they_may_explain) {
    const Ended ended = run(with(R"({"Streams": []})"));
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.errors.find("zav_shm.json: Stream is missing; correct the file\n"),
              std::string::npos);
    EXPECT_NE(ended.errors.find("zav_shm.json: warning: the unknown key \"Streams\" is ignored"),
              std::string::npos)
        << ended.errors;
}

// Whatever a name or path holds, a terminal is only ever shown text.
TEST_F(Daemon_Refusal, names_and_paths_are_shown_in_printable_form) {
    std::string content = sized_configuration(R"("System": {"SHM_PATH": "s\u001b]0;x\u0007"},)");
    content.replace(content.find("CAM_LOOP"), 8, R"(CAM\u001b[2J)");
    const Ended planned = run(with(content, {"--check"}));
    EXPECT_EQ(planned.status, 0) << planned.errors;
    EXPECT_NE(planned.output.find("producer \"CAM\\x1b[2J\": 2 channels"), std::string::npos)
        << planned.output;
    EXPECT_NE(planned.output.find("segments       2 in /dev/shm/s\\x1b]0;x\\x07, "),
              std::string::npos)
        << planned.output;
    const std::string path = write_file("new\nline\x1b\xff.json", "{}");
    EXPECT_TRUE(refused(run({"--config", path}), 3, {"new\\x0aline\\x1b\\xff.json: Stream"}));
    EXPECT_TRUE(refused(run({"--gr\x1boup", "a"}), 2, {"--gr\\x1boup"}));
    EXPECT_TRUE(refused(run({"--group", "a\x1b"}), 2, {"\"a\\x1b\""}));
    for (const Ended& ended : {planned, run({"--config", path})}) {
        EXPECT_EQ((ended.output + ended.errors).find('\x1b'), std::string::npos);
    }
}

TEST_F(Daemon_Refusal, every_problem_of_a_configuration_has_a_line) {
    const Ended ended = run(with(sized_configuration(R"("System": {"SHM_PATH": "a/b"},)", 0)));
    EXPECT_EQ(ended.status, 3);
    EXPECT_EQ(lines_in(ended.errors), 2) << ended.errors;
    EXPECT_NE(ended.errors.find("SHM_PATH: \"a/b\" contains a slash"), std::string::npos);
    EXPECT_NE(ended.errors.find("Stream[0].page_size: 0 is not from 1"), std::string::npos);
}

TEST_F(Daemon_Refusal, root_path_that_is_not_the_place_of_segments_ends_with_3) {
    EXPECT_TRUE(refused(run(with(sized_configuration(R"("System": {"ROOT_PATH": "/tmp"},)"))), 3,
                        {"System.ROOT_PATH", "\"/tmp\"", "leave it out"}));
    EXPECT_TRUE(refused(run(with(sized_configuration(R"("System": {"ROOT_PATH": "/none"},)"))), 3,
                        {"System.ROOT_PATH", "\"/none\""}));
}

// However it is written.
TEST_F(Daemon_Refusal, root_path_that_leads_to_the_place_of_segments_is_accepted) {
    fs::create_directory_symlink("/dev/shm", folder() + "/link");
    const std::string system = R"("System": {"ROOT_PATH": ")" + folder() + R"(/link"},)";
    EXPECT_EQ(run(with(sized_configuration(system), {"--check"})).status, 0);
    EXPECT_EQ(
        run(with(sized_configuration(R"("System": {"ROOT_PATH": "/dev/shm/"},)"), {"--check"}))
            .status,
        0);
}

// ---- the plan ----

TEST_F(Daemon_Refusal, check_prints_the_plan_and_makes_nothing) {
    const Ended ended = run(with(small_configuration, {"--check"}));
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_EQ(ended.errors, "");
    for (const char* part : {
             "segments       12 in /dev/shm/shm, 122880 bytes",
             "semaphores     120 in /dev/shm, 491520 bytes",
             "threads        15, 12 of them relays",
             "idle kick      every 5 s, off at the start",
             "files          143 more are needed, ",
             "rings          up to 12 in /dev/shm/shm/rings, 368640 bytes; publishers make them",
             "for clients    up to 696320 bytes and 92 files more, for rings and what lies",
             "producer \"CAM_LOOP\": 4 channels, 8 segments of 81920 bytes, 24 semaphores, 8 "
             "threads, up to 8 rings of 245760 bytes; may have streams 0 to 1",
             "consumer \"REMOTE_LOOP\": 9 channels, 54 semaphores; may have streams 0 to 1",
             "consumer \"DEAF\": 1 channel, 6 semaphores; refused every stream",
             "warning: producer \"SILENT\" is refused every stream: its stream list is empty",
             "can start\n",
         }) {
        EXPECT_NE(ended.output.find(part), std::string::npos) << part << "\n" << ended.output;
    }
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
    EXPECT_FALSE(requests.status().exists);
}

TEST_F(Daemon_Refusal, check_says_that_the_defaults_refuse_all_clients) {
    const Ended ended = run({"--check"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.output.find("warning: all clients are refused every stream"),
              std::string::npos);
}

TEST_F(Daemon_Refusal, check_warns_of_what_is_probably_not_meant) {
    std::string content = sized_configuration(R"("System": {"kick_idel": true},)");
    content.replace(content.find("[0]"), 3, "[0, 0]");
    const Ended ended = run(with(content + "}", {"--check", "--kick-interval", "0"}));
    EXPECT_EQ(ended.status, 0) << ended.errors;
    for (const char* part : {"\nwarning: line 1, column ", ": what follows the object is ignored\n",
                             "\nwarning: System: the unknown key \"kick_idel\" is ignored; ",
                             "\nwarning: Distributor[0].stream: [0, 0] accepts the streams 0 to 1, "
                             "but there is only stream 0"}) {
        EXPECT_NE(ended.output.find(part), std::string::npos) << part << ended.output;
    }
}

TEST_F(Daemon_Refusal, check_ends_as_a_start_would) {
    EXPECT_EQ(run(with("{}", {"--check"})).status, 3);
    EXPECT_EQ(run({"--check", "--group", "no_such_group"}).status, 2);
    ASSERT_TRUE(start());
    const Ended ended = run(with(small_configuration, {"--check"}));
    EXPECT_TRUE(refused(ended, 4, {std::to_string(daemon->pid())}));
    EXPECT_NE(ended.output.find("cannot start\n"), std::string::npos);
    EXPECT_EQ(end(), 0);
}

// What the plan counts is what a start makes.
TEST_F(Daemon_Refusal, plan_counts_what_a_start_makes) {
    ASSERT_TRUE(start());
    const auto entries = fs::directory_iterator("/dev/shm");
    const auto semaphores = std::count_if(
        begin(entries), fs::directory_iterator(),
        [](const auto& entry) { return entry.path().filename().string().rfind("sem.", 0) == 0; });
    EXPECT_EQ(semaphores, 120);
    const fs::directory_iterator tasks("/proc/" + std::to_string(daemon->pid()) + "/task");
    EXPECT_EQ(std::distance(begin(tasks), fs::directory_iterator()), 15);
    EXPECT_EQ(end(), 0);
}

// ---- another center ----

TEST_F(Daemon_Refusal, second_one_of_a_configuration_ends_with_4_and_names_the_first) {
    ASSERT_TRUE(start());
    const std::string first = std::to_string(daemon->pid());
    EXPECT_TRUE(refused(run(with(small_configuration)), 4,
                        {"folder /dev/shm/shm", "process " + first, "center_lock"}));
    EXPECT_EQ(field_of(client.ask(R"({"command":"deregister","type":"Distributor"})"), "status"),
              "success");
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Refusal, one_with_another_folder_ends_with_4_since_they_would_share_the_queues) {
    ASSERT_TRUE(start());
    const std::string first = std::to_string(daemon->pid());
    const std::string other = write_file(
        "other.json", sized_configuration(R"("System": {"SHM_PATH": "o", "SEM_PATH": "p"},)"));
    EXPECT_TRUE(refused(run({"--config", other}), 4,
                        {"queues 0x", "process " + first, "/dev/shm/zav_shm_queues_0x"}));
    EXPECT_FALSE(exists("o"));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Refusal, another_user_is_told_the_pid_of_the_first_too) {
    if (!there_is_nobody()) {
        GTEST_SKIP() << "needs a second user who may run the program";
    }
    ASSERT_TRUE(start());
    const Ended ended = run(with(small_configuration), as_nobody());
    EXPECT_TRUE(refused(ended, 4, {std::to_string(daemon->pid())}) ||
                refused(ended, 1, {"/dev/shm/shm"}))
        << ended.errors;
    const std::string other = write_file(
        "other.json", sized_configuration(R"("System": {"SHM_PATH": "o", "SEM_PATH": "p"},)"));
    EXPECT_TRUE(refused(run({"--config", other}, as_nobody()), 4, {std::to_string(daemon->pid())}));
    EXPECT_EQ(end(), 0);
}

// ---- room ----

using Daemon_Room = Other_Memory_Folder<Daemon_Refusal>;

TEST_F(Daemon_Room, too_little_of_it_ends_with_5_and_both_figures_and_makes_nothing) {
    give_room("size=1m");
    const Ended ended = run(with(sized_configuration("", 1'000'000)));
    EXPECT_TRUE(
        refused(ended, 5, {"1048576 bytes available", "2088960 are needed", "remount,size"}));
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
    EXPECT_FALSE(requests.status().exists);
    EXPECT_EQ(run(with(sized_configuration("", 1'000'000), {"--check"})).status, 5);
}

// As after a crash on a device whose /dev/shm is just large enough.
TEST_F(Daemon_Room, segments_that_are_there_already_need_none) {
    give_room("size=3m");
    ASSERT_TRUE(start_with(sized_configuration("", 1'000'000))) << errors();
    daemon->kill();
    ASSERT_TRUE(start_with(sized_configuration("", 1'000'000))) << errors();
    EXPECT_EQ(end(), 0);
}

// A device whose pages were made smaller, or larger.
TEST_F(Daemon_Room, of_segments_with_another_length_is_used_again_unless_they_are_mapped) {
    give_room("size=3m");
    ASSERT_TRUE(start_with(sized_configuration("", 1'000'000))) << errors();
    daemon->kill();
    const Ended planned = run(with(sized_configuration("", 1'200'000), {"--check"}));
    EXPECT_EQ(planned.status, 0) << planned.errors;
    EXPECT_NE(planned.output.find("replaced       2 segments of another length"),
              std::string::npos);
    ASSERT_TRUE(start_with(sized_configuration("", 1'200'000))) << errors();
    daemon->kill();
    {
        const IPC_SHMEMORY mapped("/shm/CAM_LOOP_0_0", O_RDONLY);
        ASSERT_TRUE(mapped.is_mapped());
        const Ended ended = run(with(sized_configuration("", 1'300'000)));
        EXPECT_EQ(ended.status, 5);
        EXPECT_NE(ended.errors.find("take room while clients have them mapped"), std::string::npos)
            << ended.errors;
    }
    ASSERT_TRUE(start_with(sized_configuration("", 1'300'000))) << errors();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Room, for_too_few_files_ends_with_5_and_both_figures_and_makes_nothing) {
    give_room("nr_inodes=60");
    const std::string files = "room for 59 more files (inodes), 143 are needed";
    EXPECT_TRUE(refused(run(with(small_configuration)), 5, {files, "remount,nr_inodes"}));
    EXPECT_TRUE(refused(run(with(small_configuration, {"--check"})), 5, {files}));
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
    EXPECT_FALSE(requests.status().exists);
}

TEST_F(Daemon_Room, without_a_limit_is_enough) {
    give_room("size=0,nr_inodes=0");
    const Ended planned = run(with(small_configuration, {"--check"}));
    EXPECT_NE(planned.output.find("bytes more are needed, no limit in"), std::string::npos);
    EXPECT_NE(planned.output.find("files          143 more are needed, no limit in"),
              std::string::npos);
    ASSERT_TRUE(start()) << errors();
    EXPECT_EQ(end(), 0);
}

// ---- a folder that cannot be used ----

TEST_F(Daemon_Room, mounted_read_only_is_called_so) {
    give_room("ro");
    const Words parts{"/dev/shm is mounted read-only", "remount,rw"};
    EXPECT_TRUE(refused(run(with(small_configuration)), 1, parts));
    EXPECT_TRUE(refused(run(with(small_configuration, {"--check"})), 1, parts));
    EXPECT_FALSE(requests.status().exists);
}

TEST_F(Daemon_Room, without_the_right_to_make_files_is_called_so) {
    if (!there_is_nobody()) {
        GTEST_SKIP() << "needs a second user who may run the program";
    }
    give_room("mode=0755");
    const Words parts{"/dev/shm has mode 0755 of user 0, and user 65534 may make nothing there",
                      "chmod 1777 /dev/shm"};
    EXPECT_TRUE(refused(run(with(small_configuration), as_nobody()), 1, parts));
    EXPECT_TRUE(refused(run(with(small_configuration, {"--check"}), as_nobody()), 1, parts));
}

// Nor is the configuration blamed for it.
TEST_F(Daemon_Refusal, missing_memory_folder_is_called_so) {
    const Words arguments = with(small_configuration);
    ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, nullptr), 0);
    close(open("/dev/null", O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    const Ended ended = run(arguments);
    EXPECT_EQ(umount("/dev"), 0);
    EXPECT_TRUE(refused(ended, 1, {"there is no folder /dev/shm", "mount -t tmpfs"}));
}

// ---- limits of the process ----

class Daemon_Limits : public Daemon_Refusal {
protected:
    // A start under this limit, unless not even the program itself runs under it: a sanitizer, or
    // an emulator.
    std::optional<Ended> run_limited(const std::string& limit) const {
        const Words limited{"/usr/bin/prlimit", limit};
        if (run({"--version"}, limited).status != 0) {
            return {};
        }
        return run(with(small_configuration), limited);
    }

    void expect_refusal_that_leaves_nothing(const std::string& limit, const Words& parts) {
        const auto ended = run_limited(limit);
        if (!ended) {
            GTEST_SKIP() << "the program does not run with " << limit;
        }
        EXPECT_TRUE(refused(*ended, 1, parts));
        EXPECT_TRUE(fs::is_empty("/dev/shm"));
        EXPECT_FALSE(requests.status().exists);
        EXPECT_FALSE(replies.status().exists);
    }
};

TEST_F(Daemon_Limits, address_space_is_named_when_relays_have_no_stack) {
    expect_refusal_that_leaves_nothing(
        "--as=60000000", {"of 12 relay threads could be started", "RLIMIT_AS is 60000000 bytes",
                          "stack takes 8388608", "ulimit -v"});
}

TEST_F(Daemon_Limits, stack_is_named_when_there_is_no_memory_for_one) {
    const std::string bytes = sizeof(void*) == 4 ? "3500000000" : "900000000000";
    expect_refusal_that_leaves_nothing(
        "--stack=" + bytes + ":" + bytes,
        {"only 0 of 12 relay threads", "no memory for another stack", "ulimit -s"});
}

TEST_F(Daemon_Limits, file_size_is_named_before_anything_is_made) {
    expect_refusal_that_leaves_nothing(
        "--fsize=5000",
        {"RLIMIT_FSIZE is 5000 bytes", "the greatest segment has 8320", "ulimit -f"});
}

TEST_F(Daemon_Limits, descriptors_are_named_before_anything_is_made) {
    expect_refusal_that_leaves_nothing("--nofile=12",
                                       {"RLIMIT_NOFILE is 12", "32 are needed", "ulimit -n"});
}

// What was there before the start stays, and all that it made goes.
TEST_F(Daemon_Limits, failed_start_leaves_what_it_found) {
    ASSERT_TRUE(start_with(sized_configuration("")));
    EXPECT_EQ(end(), 0);
    const auto ended = run_limited("--as=60000000");
    if (!ended) {
        GTEST_SKIP() << "the program does not run with this limit";
    }
    EXPECT_EQ(ended->status, 1);
    EXPECT_TRUE(requests.status().exists);
}

}  // namespace
