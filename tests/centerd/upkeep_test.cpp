// SPDX-License-Identifier: Apache-2.0
//
// What the daemon does when somebody removes, cuts or fills what its center needs.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "control/center_page.h"
#include "daemon_fixture.h"
#include "ipc/zav_shm.h"
#include "other_memory_folder.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

class Daemon_Upkeep : public Daemon_Process {
protected:
    bool start_serving(const Words& arguments = {}) {
        return start(arguments) && (epoch_ = epoch_now()) != 0;
    }

    static std::uint64_t epoch_now() {
        const auto page = zav_shm::read_center_page("/shm");
        return page ? page->epoch : 0;
    }

    // Another center serves, in the same process, and says so.
    void expect_another_center() {
        EXPECT_TRUE(becomes_true([this] { return epoch_now() != 0 && epoch_now() != epoch_; }));
        EXPECT_TRUE(becomes_true([this] { return reports("; the center is made anew, and"); }));
        std::optional<std::string> line;
        while ((line = daemon->read_line()) && line->find("is ready and serves") == line->npos) {
        }
        EXPECT_TRUE(line && line->find(std::to_string(daemon->pid())) != line->npos);
        expect_frames();
    }

    void expect_the_same_center() const {
        EXPECT_EQ(epoch_now(), epoch_);
        EXPECT_FALSE(reports("made anew"));
    }

    bool reports(const std::string& text) const { return errors().find(text) != errors().npos; }

    // Clients that come now exchange frames.
    static void expect_frames() {
        Child_Process producer({ZAV_TEST_CLIENT, "producer", "CAM_LOOP", "1"});
        ASSERT_EQ(producer.read_line(), "ready");
        Child_Process consumer({ZAV_TEST_CLIENT, "consumer", "PLAYER", "CAM_LOOP", "50"});
        ASSERT_EQ(consumer.read_line(), "ready");
        EXPECT_EQ(consumer.read_line(), "right=50 wrong=0 disordered=0 left=success");
    }

    void expect_a_second_one_to_be_refused() const {
        const Ended second = run_beside({"--config", configuration()});
        EXPECT_EQ(second.status, 4) << second.errors;
        EXPECT_NE(second.errors.find("process " + std::to_string(daemon->pid())), std::string::npos)
            << second.errors;
    }

    // With its own file of errors.
    Ended run_beside(const Words& arguments) const {
        Words words{"/bin/sh", "-c", R"(exec "$@" 2>&1)", "sh", ZAV_TEST_CENTERD};
        words.insert(words.end(), arguments.begin(), arguments.end());
        Child_Process process(words);
        Ended ended;
        ended.errors = process.read_rest();
        ended.status = process.wait();
        return ended;
    }

    std::string queue_lock() const {
        for (const auto& entry : fs::directory_iterator("/dev/shm")) {
            if (entry.path().filename().string().rfind("zav_shm_queues_", 0) == 0) {
                return entry.path();
            }
        }
        return "no lock";
    }

    std::uint64_t epoch_ = 0;
};

// ---- removed ----

TEST_F(Daemon_Upkeep, removed_semaphore_is_made_again_with_all_others) {
    ASSERT_TRUE(start_serving());
    fs::remove("/dev/shm/sem.DST_PLAYER_SEM_0_0_1");
    expect_another_center();
    EXPECT_TRUE(reports("semaphore /dev/shm/sem.DST_PLAYER_SEM_0_0_1 was removed; "));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Upkeep, removed_segment_is_made_again) {
    ASSERT_TRUE(start_serving());
    fs::remove("/dev/shm/shm/CAM_REC_0_0");
    expect_another_center();
    EXPECT_TRUE(reports("segment /dev/shm/shm/CAM_REC_0_0 was removed; "));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Upkeep, replaced_semaphore_is_noticed) {
    ASSERT_TRUE(start_serving());
    fs::copy_file("/dev/shm/sem.DST_PLAYER_SEM_0_0_1", "/dev/shm/another");
    fs::rename("/dev/shm/another", "/dev/shm/sem.DST_PLAYER_SEM_0_0_1");
    expect_another_center();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Upkeep, removed_folder_is_made_again_and_stays_locked) {
    ASSERT_TRUE(start_serving());
    fs::remove_all("/dev/shm/shm");
    expect_another_center();
    EXPECT_TRUE(reports("lock /dev/shm/shm/center_lock was removed; it is taken again"));
    expect_a_second_one_to_be_refused();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Upkeep, all_that_is_there_may_be_removed) {
    ASSERT_TRUE(start_serving({"--mode", "0660"}));
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
        fs::remove_all(entry.path());
    }
    requests.remove();
    replies.remove();
    expect_another_center();
    expect_a_second_one_to_be_refused();
    EXPECT_EQ(requests.status().mode, 0660U);
    EXPECT_EQ(end(), 0);
}

// Also while it is made again.
TEST_F(Daemon_Upkeep, folder_may_be_removed_again_and_again) {
    ASSERT_TRUE(start_serving());
    for (int i = 0; i < 60; ++i) {
        std::error_code nothing_there;
        fs::remove_all("/dev/shm/shm", nothing_there);
        std::this_thread::sleep_for(milliseconds(50));
    }
    expect_another_center();
    expect_a_second_one_to_be_refused();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Upkeep, nothing_is_left_by_clean_after_a_loss) {
    ASSERT_TRUE(start_serving({"--clean"}));
    fs::remove_all("/dev/shm/shm");
    expect_another_center();
    EXPECT_EQ(end(), 0);
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
}

TEST_F(Daemon_Upkeep, removed_page_is_written_again) {
    ASSERT_TRUE(start_serving());
    fs::remove("/dev/shm/shm/center_page");
    EXPECT_TRUE(becomes_true([] { return epoch_now() != 0; }));
    EXPECT_TRUE(becomes_true([this] {
        return reports("the center page was removed or replaced; it is written again");
    }));
    expect_the_same_center();
    EXPECT_EQ(end(), 0);
}

// ---- locks ----

TEST_F(Daemon_Upkeep, locks_whose_files_were_removed_are_taken_again) {
    ASSERT_TRUE(start_serving());
    const std::string queues = queue_lock();
    for (const std::string& lock : {std::string("/dev/shm/shm/center_lock"), queues}) {
        fs::remove(lock);
        EXPECT_TRUE(becomes_true([&lock] { return fs::exists(lock); })) << lock;
        EXPECT_TRUE(becomes_true([&] { return reports("lock " + lock + " was removed; "); }));
    }
    expect_a_second_one_to_be_refused();
    expect_the_same_center();
    EXPECT_EQ(end(), 0);
}

// It came while the first one could not look.
TEST_F(Daemon_Upkeep, place_that_another_center_has_taken_is_left_to_it) {
    ASSERT_TRUE(start_serving({"--clean"}));
    daemon->signal(SIGSTOP);
    fs::remove(queue_lock());
    fs::remove("/dev/shm/shm/center_lock");
    Child_Process first = std::move(*daemon);
    const Words arguments{"--config", configuration()};
    daemon.emplace(command(arguments));
    std::optional<std::string> line;
    while ((line = daemon->read_line()) && line->find("is ready") == line->npos) {
    }
    const std::uint64_t epoch = epoch_now();
    first.signal(SIGCONT);
    EXPECT_EQ(first.wait(seconds(20)), 4);
    EXPECT_TRUE(reports("lock /dev/shm/shm/center_lock was removed\n"));
    EXPECT_TRUE(reports("is served by the process " + std::to_string(daemon->pid())));
    EXPECT_EQ(epoch_now(), epoch);
    EXPECT_TRUE(exists("shm/center_lock"));
    expect_frames();
    announce_leftovers_of(*parsed(small_configuration));
    EXPECT_EQ(end(), 0);
}

// ---- cut ----

TEST_F(Daemon_Upkeep, segment_that_was_cut_has_its_length_again_for_all_who_have_it) {
    ASSERT_TRUE(start_serving());
    const IPC_SHMEMORY mapped("/shm/CAM_LOOP_0_0", O_RDWR);
    fs::resize_file("/dev/shm/shm/CAM_LOOP_0_0", 0);
    ASSERT_TRUE(becomes_true([] { return fs::file_size("/dev/shm/shm/CAM_LOOP_0_0") == 4224; }));
    auto* const bytes = static_cast<char*>(mapped.mem_addr);
    bytes[4223] = 'x';  // or this process is killed
    EXPECT_EQ(bytes[0], 0);
    EXPECT_TRUE(becomes_true([this] {
        return reports(
            "segment /dev/shm/shm/CAM_LOOP_0_0 was cut to 0 bytes; it has its 4224 again");
    }));
    expect_frames();
    expect_the_same_center();
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Upkeep, semaphore_that_was_cut_is_made_again) {
    ASSERT_TRUE(start_serving());
    fs::resize_file("/dev/shm/sem.SRC_CAM_REC_SEM_0_1_2", 0);
    expect_another_center();
    EXPECT_TRUE(reports("semaphore /dev/shm/sem.SRC_CAM_REC_SEM_0_1_2 was cut to 0 bytes; "));
    EXPECT_EQ(end(), 0);
}

// Its relay looks at it all the time. Whoever starts the daemon again has a good one.
TEST_F(Daemon_Upkeep, semaphore_that_is_cut_while_a_relay_uses_it_ends_the_daemon_with_a_reason) {
    ASSERT_TRUE(start_serving());
    ASSERT_EQ(field_of(client.ask(R"({"command":"register","type":"Receiver","name":"PLAYER",)"
                                  R"("pair_name":"CAM_LOOP","channel":0,"stream":0})"),
                       "status"),
              "success");
    fs::resize_file("/dev/shm/sem.DST_PLAYER_SEM_0_0_2", 0);
    const auto status = daemon->wait(seconds(10));
    if (status != 128 + SIGBUS) {  // the look once a second was faster than the relay
        expect_another_center();
        EXPECT_EQ(end(), 0);
        return;
    }
    EXPECT_TRUE(reports("SIGBUS: somebody has cut a semaphore"));
    ASSERT_TRUE(start_serving()) << errors();
    expect_frames();
    EXPECT_EQ(end(), 0);
}

// ---- full ----

class Full_Memory_Folder : public Other_Memory_Folder<Daemon_Upkeep> {
protected:
    void TearDown() override {
        for (const auto& entry : fs::directory_iterator("/dev/shm")) {
            if (entry.path().filename().string().rfind("fill", 0) == 0) {
                fs::remove(entry.path());
            }
        }
        Other_Memory_Folder::TearDown();
    }

    // In bytes, and then in files.
    static void fill() {
        const int file = open("/dev/shm/fill", O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        const std::string page(4096, 'x');
        while (write(file, page.data(), page.size()) > 0) {
        }
        close(file);
        for (int i = 0;; ++i) {
            const std::string name = "/dev/shm/fill" + std::to_string(i);
            const int another = open(name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
            if (another < 0) {
                return;
            }
            close(another);
        }
    }

    static bool status_is_renewed() {
        const std::string before = content_of("/dev/shm/shm/center_status.json");
        return becomes_true(
            [&] { return content_of("/dev/shm/shm/center_status.json") != before; });
    }
};

TEST_F(Full_Memory_Folder, does_not_keep_the_status_from_being_renewed) {
    give_room("size=3m,nr_inodes=200");
    ASSERT_TRUE(start_serving()) << errors();
    fill();
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(status_is_renewed()) << i;
    }
    EXPECT_TRUE(
        reports("/dev/shm is full (df /dev/shm, df -i /dev/shm); channels have their room"));
    EXPECT_FALSE(reports("cannot be written"));
    expect_frames();
    expect_the_same_center();
    EXPECT_EQ(end(), 0);
}

// ---- replies that nobody takes ----

class Crowded_Replies : public Daemon_Upkeep {
protected:
    // Under types of all kinds: of no process, of one that lives, of one that is gone.
    void fill_with_messages_of_others() const {
        const long types[] = {getpid() + 1'000'000L, 1, getppid(), gone_pid(), 1L << 30U};
        std::size_t number = 0;
        for (const std::size_t bytes : {110U, 1U}) {
            while (replies.send(std::string(bytes, 'x'), types[number % std::size(types)],
                                milliseconds(0))) {
                ++number;
            }
        }
        ASSERT_GE(number, 141U);
    }
};

TEST_F(Crowded_Replies, of_others_do_not_keep_new_clients_out) {
    ASSERT_TRUE(start_serving());
    fill_with_messages_of_others();
    ASSERT_TRUE(client.send_signed(farewell));
    EXPECT_EQ(client.reply(milliseconds(300)), "no reply");
    EXPECT_TRUE(becomes_true(
        [this] {
            client.send_signed(farewell);
            return field_of(client.reply(milliseconds(300)), "status") == "success";
        },
        seconds(20)));
    EXPECT_TRUE(reports("the reply queue was half full of messages that nobody took for 5 s; "));
    while (replies.take(getpid(), milliseconds(200))) {
    }
    EXPECT_EQ(replies.messages(), 0U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Crowded_Replies, are_left_alone_while_there_is_room) {
    ASSERT_TRUE(start_serving());
    ASSERT_TRUE(replies.send(std::string(1000, 'x'), getppid(), milliseconds(0)));
    std::this_thread::sleep_for(seconds(8));
    EXPECT_EQ(replies.messages(), 1U);
    EXPECT_EQ(end(), 0);
}

}  // namespace
