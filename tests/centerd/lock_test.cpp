// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "apps/centerd/center_lock.h"
#include "support/kernel_objects.h"
#include "support/threads.h"

namespace {

using zav_shm::centerd::Center_Lock;
using zav_shm::centerd::Exit_Status;
using zav_shm::centerd::lock_holder;

const std::string path = "/dev/shm/lock";

class Lock : public Kernel_Objects {
protected:
    // A process that holds the lock until it is killed.
    static pid_t start_holder() {
        const pid_t holder = fork();
        if (holder == 0) {
            Center_Lock lock(path, "the thing");
            const bool taken = !lock.take();
            pause();
            _exit(taken ? 0 : 1);
        }
        EXPECT_TRUE(becomes_true([&] { return lock_holder(path) == holder; }));
        return holder;
    }
    static void kill_holder(pid_t holder) {
        kill(holder, SIGKILL);
        waitpid(holder, nullptr, 0);
    }
};

TEST_F(Lock, is_taken_and_given_up_without_a_trace) {
    Center_Lock lock(path, "the thing");
    EXPECT_FALSE(lock.find_holder());
    EXPECT_FALSE(exists("lock")) << "looking must not make it";
    EXPECT_FALSE(lock.take());
    EXPECT_EQ(lock_holder(path), getpid());
    lock.release();
    EXPECT_FALSE(exists("lock"));
    lock.release();
}

TEST_F(Lock, of_another_process_is_refused_naming_it) {
    const pid_t holder = start_holder();
    Center_Lock lock(path, "the thing");
    for (const auto& refused : {lock.find_holder(), lock.take_existing(), lock.take()}) {
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->status, Exit_Status::already_running);
        ASSERT_EQ(refused->lines.size(), 1U);
        EXPECT_EQ(refused->lines[0].rfind("the thing is served by the process " +
                                              std::to_string(holder) + ", which holds " + path,
                                          0),
                  0U)
            << refused->lines[0];
    }
    EXPECT_TRUE(exists("lock")) << "a refusal must not remove it";
    kill_holder(holder);
    EXPECT_FALSE(lock.take());
    lock.release();
}

TEST_F(Lock, of_a_killed_process_is_free) {
    kill_holder(start_holder());
    EXPECT_TRUE(exists("lock"));
    EXPECT_FALSE(lock_holder(path));
    Center_Lock lock(path, "the thing");
    EXPECT_FALSE(lock.take());
    lock.release();
}

TEST_F(Lock, whose_file_is_left_is_taken_and_that_of_none_is_not_made) {
    Center_Lock lock(path, "the thing");
    EXPECT_FALSE(lock.take_existing());
    EXPECT_FALSE(exists("lock"));
    kill_holder(start_holder());
    EXPECT_FALSE(lock.take_existing());
    EXPECT_EQ(lock_holder(path), getpid());
    EXPECT_FALSE(lock.take()) << "it is held already";
    lock.release();
    EXPECT_FALSE(exists("lock"));
}

TEST_F(Lock, is_not_taken_through_a_link_or_on_a_folder) {
    leaves_segment("target");
    close(open("/dev/shm/target", O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    std::filesystem::create_symlink("/dev/shm/target", path);
    Center_Lock lock(path, "the thing");
    const auto refused = lock.take();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, Exit_Status::system_error);
    EXPECT_NE(refused->lines[0].find(path), std::string::npos);
    std::filesystem::remove(path);
}

TEST_F(Lock, in_a_folder_that_is_missing_is_refused) {
    Center_Lock lock("/dev/shm/missing/lock", "the thing");
    ASSERT_TRUE(lock.take());
}

// Removing the file and locking it meet all the time here. Two holders at once would show.
TEST_F(Lock, is_held_by_one_at_a_time_although_its_file_is_removed_again_and_again) {
    std::atomic<int> holders{0};
    std::atomic<int> turns{0};
    std::atomic<bool> together{false};
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (turns < 2000 && !together) {
                Center_Lock lock(path, "the thing");
                if (lock.take()) {
                    continue;
                }
                together = together || ++holders > 1;
                ++turns;
                --holders;
                lock.release();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(together);
}

}  // namespace
