// SPDX-License-Identifier: Apache-2.0
//
// Why there is no ring to be had: each reason told with the name, the value and the limit, and
// nothing left behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "ipc/monotonic_clock.h"
#include "ring/ring_file_fixture.h"
#include "support/threads.h"

using namespace zav_shm;
using Kind = Ring_Problem::Kind;

namespace {

class Ring_Trouble : public Ring_File {
protected:
    // In a process of its own, whose limits and user then do not matter to anybody else. What it
    // finds wrong stands on its standard error.
    static void in_a_child(const std::function<void()>& checks) {
        const pid_t child = fork();
        if (child == 0) {
            checks();
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }

    static void limit(__rlimit_resource what, rlim_t value) {
        const rlimit limits{value, value};
        ASSERT_EQ(setrlimit(what, &limits), 0);
    }

    // False where there is no other one: for the root of a user namespace of its own.
    static bool become_another_user() {
        constexpr uid_t nobody = 65534;
        return setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0;
    }

    void expect_refusal(Kind kind, const std::string& text, const Ring_Size& size = small_ring) {
        EXPECT_FALSE(open_writer(size));
        EXPECT_EQ(problem_.kind, kind) << problem_.text;
        EXPECT_EQ(problem_.text, text);
        EXPECT_FALSE(exists("rings/CAM_LOOP_0_0.new"));
    }

    const std::string lock_ = path_ + ".lock";
};

TEST_F(Ring_Trouble, sizes_beyond_the_limits_are_told_with_both) {
    expect_refusal(Kind::system,
                   path_ + ": 4400000000 bytes of records; the limits are 1 and 4294967232",
                   {4'000'000'000, 400'000'000});
    EXPECT_FALSE(std::filesystem::exists(lock_));
    EXPECT_FALSE(Ring_Writer::open_private({0, 0}, problem_));
    EXPECT_EQ(problem_.text, "a private ring: 0 bytes of records; the limits are 1 and 4294967232");
}

TEST_F(Ring_Trouble, names_that_something_else_has_are_told) {
    std::filesystem::create_directory(path_);
    expect_refusal(Kind::system, "cannot replace " + path_ + ": Is a directory");
    std::filesystem::remove(path_);
    std::filesystem::create_directory(lock_);
    expect_refusal(Kind::system, "cannot open " + lock_ +
                                     ": Is a directory; it belongs to user 0: " +
                                     "run as that user, or have it removed");
    std::filesystem::remove(lock_);
    std::filesystem::create_symlink("/etc/passwd", lock_);
    expect_refusal(Kind::system, "cannot open " + lock_ +
                                     ": Too many levels of symbolic links; it belongs to " +
                                     "user 0: run as that user, or have it removed");
    std::filesystem::remove(lock_);
    std::filesystem::create_directory(path_ + ".new");
    EXPECT_FALSE(open_writer());
    EXPECT_EQ(problem_.text, "cannot make " + path_ + ".new: File exists");
    std::filesystem::remove(path_ + ".new");
    EXPECT_TRUE(open_writer()) << problem_.text;
}

TEST_F(Ring_Trouble, another_user_is_told_whose_it_is) {
    open_writer();  // and closes it
    in_a_child([this] {
        if (!become_another_user()) {
            return;
        }
        expect_refusal(Kind::forbidden, "cannot open " + lock_ +
                                            ": Permission denied; it belongs to user 0: run as " +
                                            "that user, or have it removed");
    });
    chmod(path_.c_str(), 0600);
    in_a_child([this] {
        if (!become_another_user()) {
            return;
        }
        Ring_Follower follower(path_, Reading::mapped);
        EXPECT_FALSE(follower.changes_over());
        EXPECT_EQ(follower.problem().kind, Kind::forbidden);
        EXPECT_EQ(follower.problem().text, "cannot open " + path_ + ": Permission denied");
    });
}

// It can write nothing: not the file, and no word in it that says that somebody waits.
TEST_F(Ring_Trouble, a_reader_of_another_user_needs_only_the_right_to_read) {
    const auto writer = open_writer();
    const pid_t child = fork();
    if (child == 0) {
        if (!become_another_user()) {
            _exit(0);
        }
        bool all_right = open(path_.c_str(), O_RDWR | O_CLOEXEC) < 0;
        for (const Reading reading : {Reading::mapped, Reading::copied}) {
            Ring_Follower follower(path_, reading);
            all_right = all_right && follower.changes_over();
            Ring_Record record;
            const std::int64_t end = monotonic_ns() + 20'000 * ms;
            while (all_right && follower.reader()->look(record) == Look::nothing) {
                follower.wait(end);
                all_right = monotonic_ns() < end;
            }
            std::vector<std::byte> bytes(record.entry.length);
            all_right = all_right && follower.reader()->copy(record, 0, bytes) &&
                        holds_pattern(bytes, record.number) &&
                        follower.reader()->memory().has_writer();
        }
        _exit(all_right ? 0 : 1);
    }
    int status = -1;
    EXPECT_TRUE(becomes_true([&] {
        write(*writer, 100);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return waitpid(child, &status, WNOHANG) == child;
    }));
    EXPECT_EQ(status, 0);
}

// The sanitizers need address space and descriptors for themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Ring_Trouble, a_process_without_address_space_is_told_and_leaves_nothing) {
    const auto writer = open_writer({64 << 20, 4096, 256});
    ASSERT_TRUE(writer) << problem_.text;
    in_a_child([this] {
        limit(RLIMIT_AS, 1);  // no mapping more
        Ring_Follower follower(path_, Reading::mapped);
        EXPECT_FALSE(follower.changes_over());
        EXPECT_EQ(follower.problem().kind, Kind::no_room);
        EXPECT_EQ(follower.problem().text, "cannot map " + path_ + ": Cannot allocate memory");
        EXPECT_FALSE(Ring_Writer::open_private({64 << 20, 4096, 256}, problem_));
        EXPECT_EQ(problem_.kind, Kind::no_room);
        EXPECT_EQ(problem_.text, "no private memory: Cannot allocate memory");
    });
    writer->close();
    in_a_child([this] {
        limit(RLIMIT_AS, 1);
        expect_refusal(Kind::no_room, "cannot map " + path_ + ".new: Cannot allocate memory");
    });
}

// A follower has no descriptors to wait with, and asks again and again without a spin.
TEST_F(Ring_Trouble, a_process_without_descriptors_is_told_and_waits_all_the_same) {
    in_a_child([this] {
        limit(RLIMIT_NOFILE, 64);
        while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
        }
        EXPECT_FALSE(open_writer());
        EXPECT_EQ(problem_.kind, Kind::system);
        EXPECT_EQ(problem_.text, "cannot open " + lock_ + ": Too many open files");
        Ring_Follower follower(path_, Reading::mapped);
        follower.changes_over();
        const Stopwatch watch;
        int waits = 0;
        while (watch.elapsed().count() < 300) {
            follower.wait(monotonic_ns() + 300 * ms);
            follower.changes_over();
            ++waits;
        }
        EXPECT_LE(waits, 8);
    });
}

#endif

TEST_F(Ring_Trouble, a_private_ring_is_followed_without_a_name) {
    const auto writer = Ring_Writer::open_private(small_ring, problem_);
    Ring_Follower follower(writer->memory());
    write(*writer, 100);
    EXPECT_FALSE(follower.changes_over());
    EXPECT_EQ(read_all(follower), 1U);
    const Stopwatch watch;
    follower.wait(monotonic_ns() + 50 * ms);
    EXPECT_GE(watch.elapsed().count(), 49);
    EXPECT_FALSE(follower.changes_over());
}

}  // namespace
