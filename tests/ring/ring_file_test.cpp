// SPDX-License-Identifier: Apache-2.0
//
// Rings as files: making, opening, locking, replacing, following, and what others may do to them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "ipc/file_lock.h"
#include "ipc/monotonic_clock.h"
#include "ring/pattern.h"
#include "ring/ring_file_fixture.h"
#include "ring/ring_follower.h"
#include "ring/ring_writer.h"
#include "support/threads.h"

using namespace zav_shm;
using Kind = Ring_Problem::Kind;

namespace {

TEST_F(Ring_File, is_read_by_others_through_a_mapping_and_by_copying) {
    const auto writer = open_writer();
    ASSERT_TRUE(writer) << problem_.text;
    write(*writer, 1000);
    for (const Reading reading : {Reading::mapped, Reading::copied}) {
        Ring_Follower follower(path_, reading);
        ASSERT_TRUE(follower.changes_over()) << follower.problem().text;
        EXPECT_FALSE(follower.changes_over()) << "nothing has changed";
        EXPECT_EQ(read_all(follower), 1U);
        EXPECT_TRUE(follower.reader()->memory().has_writer());
        EXPECT_EQ(follower.reader()->memory().facts().writer_pid,
                  static_cast<std::uint32_t>(getpid()));
    }
}

TEST_F(Ring_File, tells_how_many_bytes_were_written) {
    const auto writer = open_writer();
    ASSERT_TRUE(writer);
    for (std::size_t length : {100U, 0U, 4096U}) {
        write(*writer, length);
    }
    std::uint64_t bytes = 0;
    const auto memory = zav_shm::Ring_Memory::open(path_, Reading::copied, problem_);
    ASSERT_TRUE(memory);
    ASSERT_TRUE(
        memory->copy(zav_shm::ring_bytes_offset, std::as_writable_bytes(std::span(&bytes, 1))));
    EXPECT_EQ(bytes, 4196U);
}

TEST_F(Ring_File, may_have_a_name_without_a_folder) {
    EXPECT_EQ(ring_folder("CAM"), ".");
    EXPECT_EQ(ring_folder("/CAM"), "/");
    EXPECT_EQ(ring_folder("a/b/CAM"), "a/b");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder_);
    {
        Ring_Follower follower("CAM_LOOP_0_0", Reading::mapped);
        follower.changes_over();
        follower.wait(0);
        const auto writer = Ring_Writer::open("CAM_LOOP_0_0", small_ring, problem_);
        ASSERT_TRUE(writer) << problem_.text;
        follower.wait(monotonic_ns() + 10'000 * ms);
        EXPECT_TRUE(follower.changes_over());
    }
    std::filesystem::current_path(before);
}

// As a reader within the writer's process has it.
TEST_F(Ring_File, has_its_writer_in_the_writers_own_eyes_too) {
    const auto writer = open_writer();
    EXPECT_TRUE(writer->memory()->has_writer());
}

TEST_F(Ring_File, may_be_read_by_whoever_may_list_its_folder_and_written_by_its_user_alone) {
    for (const auto& [folder, file] :
         {std::pair{0700, 0600}, {03770, 0640}, {03777, 0644}, {0750, 0640}, {0710, 0600}}) {
        chmod(folder_.c_str(), static_cast<mode_t>(folder));
        ASSERT_TRUE(open_writer()) << problem_.text;
        struct stat status {};
        ASSERT_EQ(stat(path_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, static_cast<mode_t>(file)) << folder;
        ASSERT_EQ(stat((path_ + ".lock").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0600U) << "who can open it can keep writers out";
    }
}

TEST_F(Ring_File, belongs_to_one_writer_and_the_second_is_told_whose) {
    auto first = open_writer();
    ASSERT_TRUE(first);
    EXPECT_FALSE(open_writer());
    EXPECT_EQ(problem_.kind, Kind::held);
    EXPECT_EQ(problem_.holder, getpid());
    EXPECT_EQ(problem_.text, "process " + std::to_string(getpid()) + " has " + path_ + ".lock");
    first->close();
    EXPECT_TRUE(open_writer()) << problem_.text;
}

TEST_F(Ring_File, of_a_killed_writer_stays_readable_and_its_lock_is_free) {
    const pid_t child = fork();
    if (child == 0) {
        const auto writer = open_writer();
        write(*writer, 10);
        write(*writer, 4000);
        writer->reserve(4096);
        raise(SIGKILL);
    }
    waitpid(child, nullptr, 0);
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    EXPECT_EQ(read_all(follower), 2U);
    EXPECT_FALSE(follower.reader()->memory().has_writer());
    EXPECT_FALSE(follower.reader()->is_closed());
    EXPECT_TRUE(open_writer()) << problem_.text;
}

// The child shares mapping and lock with its parent: both writing would be two writers.
TEST_F(Ring_File, is_not_written_by_a_forked_child) {
    const auto writer = open_writer();
    const pid_t child = fork();
    if (child == 0) {
        const bool wrote = !writer->reserve(1).empty() || writer->commit(0, {}) != 0;
        _exit(wrote ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    write(*writer, 1);
    EXPECT_EQ(writer->last(), 1U);
}

// A child that was forked has the lock's file open, too, and may live on for long.
TEST_F(Ring_File, is_free_for_the_next_writer_beside_a_forked_child_of_the_former) {
    auto writer = open_writer();
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    writer->close();
    EXPECT_TRUE(open_writer()) << problem_.text;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(Ring_File, stays_its_writers_when_a_forked_child_closes_its_copy) {
    auto writer = open_writer();
    const pid_t child = fork();
    if (child == 0) {
        writer.reset();
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(open_writer());
    EXPECT_EQ(problem_.kind, Kind::held);
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    EXPECT_FALSE(follower.reader()->is_closed());
}

// Not even the lock's own few bytes have room.
TEST_F(Ring_File, in_a_full_file_system_is_refused_and_leaves_nothing) {
    ASSERT_EQ(mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=64k"), 0);
    std::ofstream(folder_ + "/filler") << std::string(100'000, 'x');
    EXPECT_FALSE(open_writer());
    EXPECT_EQ(problem_.kind, Kind::no_room);
    EXPECT_EQ(problem_.text, "cannot write " + path_ + ".lock: No space left on device");
    std::filesystem::resize_file(folder_ + "/filler", 50'000);
    EXPECT_FALSE(open_writer());
    EXPECT_EQ(problem_.kind, Kind::no_room);
    std::filesystem::remove(folder_ + "/filler");
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
    EXPECT_EQ(umount(folder_.c_str()), 0);
}

TEST_F(Ring_File, whose_holder_has_not_written_its_number_yet_is_told_as_anothers) {
    const int descriptor = open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_TRUE(take_file_lock(descriptor));
    EXPECT_FALSE(open_writer());
    EXPECT_EQ(problem_.kind, Kind::held);
    EXPECT_EQ(problem_.text, "another process has " + path_ + ".lock");
    close(descriptor);
}

TEST_F(Ring_File, that_does_not_fit_is_refused_and_leaves_nothing) {
    ASSERT_EQ(mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=256k"), 0);
    {
        auto former = open_writer({50'000, 4096, 64});
        ASSERT_TRUE(former) << problem_.text;
        write(*former, 100);
        former->close();
        EXPECT_FALSE(open_writer({300'000, 4096, 64}));
        EXPECT_EQ(problem_.kind, Kind::no_room);
        EXPECT_NE(problem_.text.find("it takes 312320 bytes, "), std::string::npos)
            << problem_.text;
        EXPECT_NE(problem_.text.find(" are available"), std::string::npos) << problem_.text;
        EXPECT_FALSE(std::filesystem::exists(path_ + ".new"));
        Ring_Follower follower(path_, Reading::mapped);
        ASSERT_TRUE(follower.changes_over());
        EXPECT_EQ(read_all(follower), 1U) << "the former one is still there";
    }
    EXPECT_EQ(umount(folder_.c_str()), 0);
}

TEST_F(Ring_File, without_a_folder_or_a_right_to_it_is_told_as_such) {
    EXPECT_FALSE(Ring_Writer::open("/dev/shm/nowhere/X_0_0", small_ring, problem_));
    EXPECT_EQ(problem_.kind, Kind::absent);
    EXPECT_EQ(problem_.text, "there is no folder /dev/shm/nowhere");
    Ring_Follower follower("/dev/shm/nowhere/X_0_0", Reading::mapped);
    EXPECT_FALSE(follower.changes_over());
    EXPECT_EQ(follower.problem().kind, Kind::absent);
}

TEST_F(Ring_File, of_another_kind_is_told_as_such_and_tried_again) {
    Ring_Follower follower(path_, Reading::mapped);
    const auto problem_with = [&](const std::string& content) {
        put_file(content);
        follower.wait(0);
        EXPECT_FALSE(follower.changes_over());
        EXPECT_EQ(follower.problem().kind, Kind::unreadable);
        return follower.problem().text.substr(follower.problem().text.find(": ") + 2);
    };
    EXPECT_EQ(problem_with(""), "0 bytes are no header");
    EXPECT_EQ(problem_with("ZAVR"), "4 bytes are no header");
    EXPECT_EQ(problem_with(std::string(5000, 'x')), "it does not begin with ZAVR");
    Ring_Facts facts;
    const auto as_text = [&facts](std::size_t length) {
        std::string text(length, '\0');
        std::memcpy(text.data(), &facts, sizeof facts);
        return text;
    };
    facts.version = 2;
    EXPECT_EQ(problem_with(as_text(5000)), "its version is 2, this program reads 1");
    facts.version = 1;
    EXPECT_EQ(problem_with(as_text(5000)),
              "its header contradicts itself or its length of 5000 bytes");
    facts = {
        .index_count = 4, .data_offset = 8192, .data_bytes = 4096, .record_max = 4096, .epoch = 1};
    EXPECT_EQ(problem_with(as_text(8192 + 4095)),
              "its header contradicts itself or its length of 12287 bytes");
    std::filesystem::remove(path_);
    std::filesystem::create_symlink("/etc/passwd", path_);
    follower.wait(0);
    EXPECT_FALSE(follower.changes_over());
    EXPECT_EQ(follower.problem().text, path_ + " is a symbolic link, no ring");
    std::filesystem::remove(path_);
    mkfifo(path_.c_str(), 0600);
    follower.wait(0);
    EXPECT_FALSE(follower.changes_over());
    EXPECT_EQ(follower.problem().text, path_ + " is no ring that can be read: it is no file");
    std::filesystem::remove(path_);
    const auto writer = open_writer();
    follower.wait(0);
    EXPECT_TRUE(follower.changes_over());
    EXPECT_FALSE(follower.problem());
}

TEST_F(Ring_File, that_is_replaced_is_read_to_its_end_before_the_new_one) {
    auto first = open_writer();
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    write(*first, 1);
    write(*first, 2);
    first->close();
    const auto second = open_writer();
    write(*second, 3);
    Ring_Record record;
    ASSERT_EQ(follower.reader()->look(record), Look::record);
    follower.reader()->advance();
    ASSERT_EQ(follower.reader()->look(record), Look::record);
    follower.reader()->advance();
    ASSERT_EQ(follower.reader()->look(record), Look::nothing);
    ASSERT_TRUE(follower.changes_over()) << "closed: it looks at once";
    follower.reader()->move_to(follower.reader()->oldest());
    ASSERT_EQ(follower.reader()->look(record), Look::record);
    EXPECT_EQ(record.entry.length, 3U);
}

TEST_F(Ring_File, that_is_replaced_wakes_those_who_wait_at_the_former_one) {
    auto first = open_writer();
    std::atomic<bool> waits{false};
    std::atomic<std::int64_t> changed_ns{0};
    std::thread reading([&] {
        Ring_Follower follower(path_, Reading::mapped);
        EXPECT_TRUE(follower.changes_over());
        Ring_Record record;
        EXPECT_EQ(follower.reader()->look(record), Look::nothing);
        waits = true;
        while (!follower.changes_over()) {
            follower.wait(monotonic_ns() + 10'000 * ms);
        }
        changed_ns = monotonic_ns();
    });
    while (!waits) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    first.reset();
    const std::int64_t begin = monotonic_ns();
    const auto second = open_writer();
    reading.join();
    EXPECT_LT(changed_ns - begin, 500 * ms) << "it has not waited for its look once a second";
}

TEST_F(Ring_File, is_found_as_soon_as_it_gets_its_name_also_in_a_folder_that_comes_later) {
    std::filesystem::remove(folder_);
    std::atomic<bool> waits{false};
    std::atomic<std::int64_t> found_ns{0};
    std::thread reading([&] {
        Ring_Follower follower(path_, Reading::mapped);
        while (!follower.changes_over()) {
            waits = true;
            follower.wait(monotonic_ns() + 10'000 * ms);
        }
        found_ns = monotonic_ns();
    });
    while (!waits) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::filesystem::create_directory(folder_);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto writer = open_writer();
    const std::int64_t made_ns = monotonic_ns();
    reading.join();
    EXPECT_LT(found_ns - made_ns, 500 * ms);
}

TEST_F(Ring_File, that_is_silent_costs_its_reader_one_wakeup_a_second) {
    const auto writer = open_writer();
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    Ring_Record record;
    int waits = 0;
    const std::int64_t end = monotonic_ns() + 2200 * ms;
    while (monotonic_ns() < end) {
        ASSERT_EQ(follower.reader()->look(record), Look::nothing);
        if (!follower.changes_over()) {
            follower.wait(end);
            ++waits;
        }
    }
    EXPECT_LE(waits, 4);
}

TEST_F(Ring_File, wake_ends_a_wait_and_keeps_one_from_beginning) {
    const auto writer = open_writer();
    for (const std::string& path : {path_, folder_ + "/ABSENT_0_0"}) {
        Ring_Follower follower(path, Reading::mapped);
        follower.changes_over();
        follower.wake();
        const Stopwatch watch;
        follower.wait(monotonic_ns() + 10'000 * ms);
        EXPECT_LT(watch.elapsed().count(), 500) << "kept from beginning";
        std::thread other([&follower] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            follower.wake();
        });
        follower.changes_over();
        const Stopwatch second;
        follower.wait(monotonic_ns() + 10'000 * ms);
        EXPECT_LT(second.elapsed().count(), 900);
        other.join();
    }
}

TEST_F(Ring_File, that_is_truncated_is_an_error_to_who_reads_it_by_copying) {
    const auto writer = open_writer();
    write(*writer, 4000);
    Ring_Follower follower(path_, Reading::copied);
    ASSERT_TRUE(follower.changes_over());
    Ring_Reader& reader = *follower.reader();
    reader.move_to(1);
    Ring_Record record;
    ASSERT_EQ(reader.look(record), Look::record);
    std::vector<std::byte> bytes(4000);
    std::filesystem::resize_file(path_, 20'000);
    EXPECT_TRUE(reader.copy(record, 0, bytes)) << "its begin is still there";
    std::filesystem::resize_file(path_, 13'000);
    EXPECT_FALSE(reader.copy(record, 0, bytes));
    std::filesystem::resize_file(path_, 100);
    EXPECT_EQ(reader.look(record), Look::broken);
    EXPECT_FALSE(reader.is_in_reach(1));
    std::filesystem::resize_file(path_, 0);
    EXPECT_EQ(reader.look(record), Look::broken);
    EXPECT_EQ(reader.wait(monotonic_ns() + 10'000 * ms), Futex_Wait::gone);
    EXPECT_EQ(reader.newest(), 0U);
    std::filesystem::resize_file(path_, 200'000);  // for the writer, which still maps it
}

// A shared lock, which needs only the right to read, is no sign of life and keeps nobody out.
TEST_F(Ring_File, is_not_kept_from_its_writer_by_a_readers_lock) {
    {
        const auto writer = open_writer();
        write(*writer, 1);
    }
    const int descriptor = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    ASSERT_EQ(fcntl(descriptor, F_OFD_SETLK, &lock), 0);
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    EXPECT_FALSE(follower.reader()->memory().has_writer());
    EXPECT_TRUE(open_writer()) << problem_.text;
    close(descriptor);
}

TEST_F(Ring_File, a_broken_one_is_given_up_and_tried_again) {
    const auto writer = open_writer();
    write(*writer, 1);
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    follower.give_up("its entry 1 is nonsense");
    EXPECT_EQ(follower.reader(), nullptr);
    EXPECT_EQ(follower.problem().text, path_ + " is damaged: its entry 1 is nonsense");
    const Stopwatch watch;
    while (!follower.changes_over()) {
        follower.wait(monotonic_ns() + 10'000 * ms);
    }
    EXPECT_GT(watch.elapsed().count(), 300);
    EXPECT_LT(watch.elapsed().count(), 5000);
}

}  // namespace
