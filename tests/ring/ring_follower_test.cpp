// SPDX-License-Identifier: Apache-2.0
//
// Following a ring by its name: changing over, sleeping, being woken.
#include <gtest/gtest.h>

#include <atomic>
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
            for (std::uint64_t i = 0; i < records; ++i) {
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

}  // namespace
