// SPDX-License-Identifier: Apache-2.0
//
// Following a ring by its name: changing over, sleeping, being woken.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "ipc/monotonic_clock.h"
#include "ring/ring_file_fixture.h"
#include "support/threads.h"

using namespace zav_shm;

namespace {

class Following : public Ring_File {
protected:
    Look look(Ring_Follower& follower) { return follower.reader()->look(record_); }

    Ring_Record record_;
};

// Between the reader's look and its changing over: a writer commits, ends, and has a successor.
TEST_F(Following, reads_what_a_writer_wrote_in_its_last_moment_before_its_successor) {
    auto first = open_writer();
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    ASSERT_EQ(look(follower), Look::nothing);
    write(*first, 77);
    first->close();
    const auto second = open_writer();
    write(*second, 99);

    EXPECT_FALSE(follower.changes_over());
    ASSERT_EQ(look(follower), Look::record);
    EXPECT_EQ(record_.entry.length, 77U);
    follower.reader()->advance();
    ASSERT_EQ(look(follower), Look::nothing);
    ASSERT_TRUE(follower.changes_over()) << "at once, not with the next look at the name";
    follower.reader()->move_to(1);
    ASSERT_EQ(look(follower), Look::record);
    EXPECT_EQ(record_.entry.length, 99U);
}

// Nobody sleeps on the former ring while its successor is made, so that no wake reaches anybody.
TEST_F(Following, finds_the_successor_of_a_killed_writer_at_once_also_when_it_was_awake) {
    const pid_t child = fork();
    if (child == 0) {
        const auto writer = open_writer();
        write(*writer, 10);
        raise(SIGKILL);
    }
    waitpid(child, nullptr, 0);
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    ASSERT_EQ(look(follower), Look::nothing);
    ASSERT_FALSE(follower.changes_over());
    const auto successor = open_writer();
    ASSERT_EQ(look(follower), Look::nothing);
    EXPECT_TRUE(follower.reader()->is_closed());
    EXPECT_TRUE(follower.changes_over());
}

// Many writers in a row, each of which writes and is gone at once; nobody tells the reader.
TEST_F(Following, loses_no_record_of_many_short_lives) {
    constexpr std::uint64_t lives = 200;
    constexpr std::uint64_t records = 5;
    std::atomic<std::uint64_t> lives_seen{0};
    std::thread writing([&] {
        for (std::uint64_t life = 1; life <= lives; ++life) {
            auto writer = open_writer();
            while (lives_seen < life) {
                std::this_thread::yield();
            }
            for (std::size_t i = 0; i < records; ++i) {
                write(*writer, i);
            }
        }
    });
    Ring_Follower follower(path_, Reading::mapped);
    std::uint64_t got = 0;
    while (got < lives * records) {
        if (follower.reader() != nullptr && look(follower) == Look::record) {
            ASSERT_EQ(record_.entry.length, got % records);
            ++got;
            follower.reader()->advance();
        } else if (follower.changes_over()) {
            ASSERT_EQ(got, lives_seen * records) << "the one before was not read to its end";
            follower.reader()->move_to(1);
            ++lives_seen;
        } else {
            follower.wait(monotonic_ns() + 10'000 * ms);
        }
    }
    writing.join();
}

// The head is moved all the time, and never to where the reader waits: each of its sleeps ends at
// once, and yet it does not take a processor for itself.
TEST_F(Following, a_head_that_is_played_with_does_not_keep_its_reader_busy) {
    const auto writer = open_writer();
    for (int i = 0; i < 100; ++i) {
        write(*writer, 10);
    }
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    std::atomic<bool> begins{false};
    std::atomic<bool> ends{false};
    std::thread hostile([&] {
        for (std::uint32_t behind = 0x90000000U; !ends; ++behind) {
            writer->memory()->store_release(ring_head_offset, behind);
            futex_wake(writer->memory()->head_word());
            begins = true;
        }
    });
    while (!begins) {
    }
    int rounds = 0;
    const std::int64_t end = monotonic_ns() + 300 * ms;
    while (monotonic_ns() < end) {
        ASSERT_EQ(look(follower), Look::nothing);
        if (!follower.changes_over()) {
            follower.wait(end);
        }
        ++rounds;
    }
    ends = true;
    hostile.join();
    EXPECT_LT(rounds, 500);
}

// No wait may swallow a wake: what the waking thread did before it is seen behind the wait.
TEST_F(Following, no_wake_is_lost_whenever_it_comes) {
    const auto writer = open_writer();
    for (const std::string& path : {path_, folder_ + "/ABSENT_0_0"}) {
        Ring_Follower follower(path, Reading::mapped);
        std::atomic<int> asked{0};
        std::atomic<int> answered{0};
        constexpr int rounds = 500;
        std::thread asking([&] {
            for (int round = 1; round <= rounds; ++round) {
                asked.store(round, std::memory_order_relaxed);
                follower.wake();
                while (answered < round) {
                    std::this_thread::yield();
                }
            }
        });
        for (int round = 1; round <= rounds; ++round) {
            const Stopwatch watch;
            while (asked.load(std::memory_order_relaxed) < round) {
                follower.changes_over();
                if (follower.reader() != nullptr) {
                    look(follower);
                }
                follower.wait(monotonic_ns() + 10'000 * ms);
            }
            ASSERT_LT(watch.elapsed().count(), 700) << "found by the look once a second alone";
            answered = round;
        }
        asking.join();
    }
}

TEST_F(Following, is_found_in_a_folder_that_was_removed_and_made_again) {
    std::atomic<int> waits{0};
    std::atomic<std::int64_t> found_ns{0};
    std::thread reading([&] {
        Ring_Follower follower(path_, Reading::mapped);
        while (!follower.changes_over()) {
            ++waits;
            follower.wait(monotonic_ns() + 10'000 * ms);
        }
        found_ns = monotonic_ns();
    });
    EXPECT_TRUE(becomes_true([&] { return waits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    std::filesystem::remove(folder_);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    std::filesystem::create_directory(folder_);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const std::int64_t begin = monotonic_ns();
    const auto writer = open_writer();
    reading.join();
    EXPECT_LT(found_ns - begin, 500 * ms);
}

// Where the folder of rings is there, what happens in the folders above is no news.
TEST_F(Following, is_not_woken_by_what_gets_a_name_elsewhere) {
    std::filesystem::remove(folder_);
    Ring_Follower follower(path_, Reading::mapped);
    follower.changes_over();
    follower.wait(0);
    std::filesystem::create_directory(folder_);
    follower.changes_over();
    follower.wait(monotonic_ns() + 10'000 * ms);  // the folder has come
    follower.changes_over();
    follower.wait(0);
    follower.changes_over();
    std::atomic<bool> ends{false};
    std::thread busy([&ends] {
        const std::string file = "/dev/shm/elsewhere";
        while (!ends) {
            std::ofstream(file).put('x');
            std::filesystem::remove(file);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const Stopwatch watch;
    follower.wait(monotonic_ns() + 300 * ms);
    EXPECT_GT(watch.elapsed().count(), 250);
    ends = true;
    busy.join();
}

}  // namespace
