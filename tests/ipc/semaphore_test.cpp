// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <sstream>
#include <thread>

#include "ipc/zav_sem.h"
#include "support/capture.h"
#include "support/interrupted.h"
#include "support/kernel_objects.h"
#include "support/threads.h"

namespace {

class Semaphore : public Kernel_Objects {
protected:
    void SetUp() override {
        Kernel_Objects::SetUp();
        leaves_semaphore(name);
    }

    static void post(SEM_CTRL& semaphore, int times) {
        for (int i = 0; i < times; ++i) {
            sem_post(semaphore.sem);
        }
    }

    const char* const name = "/SRC_CAM_LOOP_SEM_0_0_1";
};

std::string dump(const SEM_CTRL& semaphore) {
    std::ostringstream out;
    out << semaphore;
    return out.str();
}

TEST_F(Semaphore, creating_replaces_one_that_has_a_value) {
    SEM_CTRL former(name, true);
    post(former, 5);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(SEM_CTRL(name, true).value(), 0); }), "");
    EXPECT_EQ(former.value(), 5);  // an orphan: its name belongs to the new one
}

TEST_F(Semaphore, is_created_for_its_owner_alone) {
    const SEM_CTRL semaphore(name, true);
    struct stat status {};
    ASSERT_EQ(stat("/dev/shm/sem.SRC_CAM_LOOP_SEM_0_0_1", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(Semaphore, outlives_its_handle_with_its_value) {
    {
        SEM_CTRL semaphore(name, true);
        post(semaphore, 1);
    }
    const SEM_CTRL again(name, false);
    EXPECT_EQ(again.value(), 1);
    EXPECT_STREQ(again.name, name);
}

TEST_F(Semaphore, general_form_creates_with_flags_or_opens_silently) {
    EXPECT_EQ(output_of([&] {
                  SEM_CTRL created(name, O_CREAT | O_EXCL | O_RDWR, 0600);
                  ASSERT_TRUE(created.is_open());
                  EXPECT_EQ(created.value(), 0);
                  post(created, 3);
                  const SEM_CTRL fallen_back(name, O_CREAT | O_EXCL | O_RDWR, 0600);
                  ASSERT_TRUE(fallen_back.is_open());
                  EXPECT_EQ(fallen_back.value(), 3);
              }),
              "");
}

TEST_F(Semaphore, wait_of_zero_does_not_wait) {
    SEM_CTRL semaphore(name, true);
    const Stopwatch watch;
    EXPECT_EQ(semaphore.wait(0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    post(semaphore, 1);
    EXPECT_EQ(semaphore.wait(0), 0);
    EXPECT_EQ(semaphore.value(), 0);
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(5));
}

TEST_F(Semaphore, wait_of_a_negative_time_is_a_wait_of_zero) {
    SEM_CTRL semaphore(name, true);
    EXPECT_EQ(semaphore.wait(-1500), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    post(semaphore, 1);
    EXPECT_EQ(semaphore.wait(-1), 0);
}

TEST_F(Semaphore, wait_lasts_its_time) {
    SEM_CTRL semaphore(name, true);
    const Stopwatch watch;
    EXPECT_EQ(semaphore.wait(50), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(49));
}

TEST_F(Semaphore, wait_by_the_steady_clock_lasts_its_time_and_takes_a_post) {
    SEM_CTRL semaphore(name, true);
    const Stopwatch watch;
    EXPECT_EQ(semaphore.wait_steady(40), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(40));
    post(semaphore, 1);
    EXPECT_EQ(semaphore.wait_steady(0), 0);
    EXPECT_EQ(semaphore.wait_steady(-5), -1);
}

// A signal is no reason to miss a frame.
TEST_F(Semaphore, wait_by_the_steady_clock_goes_on_after_a_signal) {
    SEM_CTRL semaphore(name, true);
    int result = 0;
    const Stopwatch watch;
    EXPECT_EQ(errno_after_interrupting([&] { result = semaphore.wait_steady(60); }), ETIMEDOUT);
    EXPECT_EQ(result, -1);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(60));
    std::thread posting([&semaphore] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        post(semaphore, 1);
    });
    errno_after_interrupting([&] { result = semaphore.wait_steady(60'000); });
    posting.join();
    EXPECT_EQ(result, 0);
}

TEST_F(Semaphore, interrupted_wait_says_so) {
    SEM_CTRL semaphore(name, true);
    int result = 0;
    EXPECT_EQ(errno_after_interrupting([&] { result = semaphore.wait(60'000); }), EINTR);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno_after_interrupting([&] { result = semaphore.wait_forever(); }), EINTR);
    EXPECT_EQ(result, -1);
}

TEST_F(Semaphore, conditional_post_never_counts_above_one) {
    SEM_CTRL semaphore(name, true);
    semaphore.post_if_zero();
    EXPECT_EQ(semaphore.value(), 1);
    semaphore.post_if_zero();
    EXPECT_EQ(semaphore.value(), 1);
    post(semaphore, 2);
    semaphore.post_if_zero();
    EXPECT_EQ(semaphore.value(), 3);
}

TEST_F(Semaphore, dump_is_name_and_value) {
    SEM_CTRL semaphore(name, true);
    EXPECT_EQ(dump(semaphore), "/SRC_CAM_LOOP_SEM_0_0_1 0");
    post(semaphore, 1);
    EXPECT_EQ(dump(semaphore), "/SRC_CAM_LOOP_SEM_0_0_1 1");
}

TEST_F(Semaphore, drained_reads_zero_whatever_it_held) {
    SEM_CTRL semaphore(name, true);
    semaphore.drain();
    EXPECT_EQ(semaphore.value(), 0);
    post(semaphore, 3);
    semaphore.drain();
    EXPECT_EQ(semaphore.value(), 0);
    post(semaphore, 100'000);  // nobody that keeps the protocol leaves so many
    semaphore.drain();
    EXPECT_EQ(semaphore.value(), 0);
}

TEST_F(Semaphore, drain_ends_beside_a_peer_that_posts_without_end) {
    SEM_CTRL semaphore(name, true);
    std::atomic<bool> stop{false};
    std::thread poster([&] {
        SEM_CTRL own(name, false);
        while (!stop) {
            sem_post(own.sem);
        }
    });
    for (int i = 0; i < 20; ++i) {
        semaphore.drain();
    }
    stop = true;
    poster.join();
}

TEST_F(Semaphore, drained_beside_a_blocked_waiter_still_wakes_it) {
    SEM_CTRL semaphore(name, true);
    std::atomic<pid_t> id{0};
    std::atomic<int> result{-2};
    std::thread waiter([&] {
        SEM_CTRL own(name, false);
        id = gettid();
        result = own.wait(60'000);
    });
    ASSERT_TRUE(becomes_true([&] { return id != 0 && is_asleep(id); }));
    semaphore.drain();
    const Stopwatch watch;
    semaphore.post_if_zero();
    waiter.join();
    EXPECT_EQ(result, 0);
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(30));
}

class Failed_Semaphore : public Kernel_Objects {};

TEST_F(Failed_Semaphore, opening_a_missing_name_prints_and_fails) {
    EXPECT_EQ(output_of([] { EXPECT_FALSE(SEM_CTRL("/MISSING", false).is_open()); }),
              "Open Sem Failed\n");
}

TEST_F(Failed_Semaphore, creating_an_impossible_name_prints_it) {
    EXPECT_EQ(output_of([] { EXPECT_FALSE(SEM_CTRL("/A/B", true).is_open()); }),
              "Sem is SEM_FAILED, Open it /A/B\n");
}

TEST_F(Failed_Semaphore, null_empty_and_overlong_names_fail) {
    const std::string overlong = "/" + std::string(255, 'N');
    const std::string longest = "/" + std::string(254, 'N');
    output_of([&] {
        for (const char* name :
             {static_cast<const char*>(nullptr), "", "/", overlong.c_str(), longest.c_str()}) {
            EXPECT_FALSE(SEM_CTRL(name, true).is_open());
            EXPECT_FALSE(SEM_CTRL(name, false).is_open());
            EXPECT_FALSE(SEM_CTRL(name, O_CREAT | O_RDWR, 0600).is_open());
        }
        EXPECT_EQ(SEM_CTRL(longest.c_str(), false).name, longest);
        EXPECT_STREQ(SEM_CTRL(overlong.c_str(), false).name, "");
    });
}

TEST_F(Failed_Semaphore, refuses_every_operation_with_einval) {
    output_of([] {
        SEM_CTRL failed("/MISSING", false);
        EXPECT_EQ(failed.sem, SEM_FAILED);
        errno = 0;
        EXPECT_EQ(failed.wait(60'000), -1);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(failed.wait_steady(60'000), -1);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(failed.wait_forever(), -1);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(failed.try_wait(), -1);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(failed.value(), -1);
        EXPECT_EQ(errno, EINVAL);
        failed.post_if_zero();
        failed.drain();
        EXPECT_EQ(dump(failed), "/MISSING -1");
    });
}

}  // namespace
