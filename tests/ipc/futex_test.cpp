// SPDX-License-Identifier: Apache-2.0
//
// Sleeping on a word of a file that others change, with a mapping that may only be read.
#include "ipc/futex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <limits>
#include <thread>

#include "ipc/monotonic_clock.h"
#include "support/interrupted.h"
#include "support/kernel_objects.h"
#include "support/threads.h"

using namespace zav_shm;

namespace {

constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t for_ever = std::numeric_limits<std::int64_t>::max();

class Futex : public Kernel_Objects {
protected:
    void SetUp() override {
        Kernel_Objects::SetUp();
        file_ = open("/dev/shm/word", O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        const int reading = open("/dev/shm/word", O_RDONLY | O_CLOEXEC);
        unlink("/dev/shm/word");
        ASSERT_EQ(ftruncate(file_, 4096), 0);
        writable_ = static_cast<std::uint32_t*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0));
        word_ = static_cast<const std::uint32_t*>(
            mmap(nullptr, 4096, PROT_READ, MAP_SHARED, reading, 0));
        close(reading);
    }
    void TearDown() override {
        munmap(writable_, 4096);
        munmap(const_cast<std::uint32_t*>(word_), 4096);
        close(file_);
        Kernel_Objects::TearDown();
    }

    void store(std::uint32_t value) { __atomic_store_n(writable_, value, __ATOMIC_RELEASE); }

    int file_ = -1;
    std::uint32_t* writable_ = nullptr;
    const std::uint32_t* word_ = nullptr;  // another mapping of it
};

TEST_F(Futex, sleep_ends_at_its_deadline) {
    EXPECT_EQ(futex_wait(word_, 0, monotonic_ns() - 1), Futex_Wait::timed_out);
    EXPECT_EQ(futex_wait(word_, 0, 0), Futex_Wait::timed_out);
    EXPECT_EQ(futex_wait(word_, 0, std::numeric_limits<std::int64_t>::min()),
              Futex_Wait::timed_out);
    const std::int64_t begin = monotonic_ns();
    EXPECT_EQ(futex_wait(word_, 0, begin + 50 * ms), Futex_Wait::timed_out);
    EXPECT_GE(monotonic_ns() - begin, 50 * ms);
}

TEST_F(Futex, sleep_does_not_begin_when_the_word_is_another_one) {
    store(7);
    EXPECT_EQ(futex_wait(word_, 6, for_ever), Futex_Wait::look_again);
}

TEST_F(Futex, sleep_without_end_ends_with_a_wake_of_its_set) {
    std::atomic<bool> is_awake{false};
    std::atomic<pid_t> sleeper{0};
    std::thread sleeping([&] {
        sleeper = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_EQ(futex_wait(word_, 0, for_ever, 4), Futex_Wait::look_again);
        is_awake = true;
    });
    EXPECT_TRUE(becomes_true([&] { return sleeper != 0 && is_asleep(sleeper); }));
    futex_wake(word_, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(is_awake) << "another set";
    EXPECT_TRUE(becomes_true([&] {
        futex_wake(word_, 6);
        return is_awake.load();
    }));
    sleeping.join();
}

TEST_F(Futex, sleep_ends_with_a_signal) {
    Futex_Wait ended = Futex_Wait::timed_out;
    errno_after_interrupting([&] { ended = futex_wait(word_, 0, for_ever); });
    EXPECT_EQ(ended, Futex_Wait::look_again);
}

TEST_F(Futex, wake_reaches_every_set_of_another_process) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(futex_wait(word_, 0, monotonic_ns() + 20'000 * ms, 1U << 31U) ==
                      Futex_Wait::look_again
                  ? 0
                  : 1);
    }
    int status = -1;
    EXPECT_TRUE(becomes_true([&] {
        futex_wake(word_);
        return waitpid(child, &status, WNOHANG) == child;
    }));
    EXPECT_EQ(status, 0);
}

TEST_F(Futex, word_whose_file_was_truncated_is_gone_and_kills_nobody) {
    ASSERT_EQ(ftruncate(file_, 0), 0);
    EXPECT_EQ(futex_wait(word_, 0, for_ever), Futex_Wait::gone);
    futex_wake(word_);
    ASSERT_EQ(ftruncate(file_, 4096), 0);
}

#ifdef SYS_futex_time64

bool refuse_call(long call, int error) {
    const auto number = static_cast<std::uint32_t>(call);
    std::array<sock_filter, 4> filter{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Kernels before 5.1, and sandboxes made for them. The older call takes a time of 32 bits.
TEST_F(Futex, sleep_ends_at_its_deadline_where_the_kernel_has_no_times_of_64_bits) {
    for (const int error : {ENOSYS, EPERM}) {
        const pid_t child = fork();
        if (child == 0) {
            if (!refuse_call(SYS_futex_time64, error)) {
                _exit(77);  // the emulator has no filters
            }
            const std::int64_t begin = monotonic_ns();
            const bool timed_out = futex_wait(word_, 0, begin + 50 * ms) == Futex_Wait::timed_out;
            const std::int64_t slept = monotonic_ns() - begin;
            store(1);
            const bool looked = futex_wait(word_, 0, for_ever) == Futex_Wait::look_again;
            _exit(timed_out && slept >= 50 * ms && slept < 5000 * ms && looked ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        store(0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
            GTEST_SKIP() << "no system call can be refused here";
        }
        EXPECT_EQ(status, 0) << error;
    }
}

#endif

}  // namespace
