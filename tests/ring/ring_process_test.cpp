// SPDX-License-Identifier: Apache-2.0
//
// Rings between processes: readers that are overtaken on purpose, writers that are killed at every
// point, second ones, and hostile ones.
//
// ZAV_SHM_RING_RECORDS says how many records each reader has to get whole, and ZAV_SHM_RING_WRITER
// which program writes: one of another build, for 32 bits beside 64. scripts/ring sets both.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <optional>
#include <sstream>

#include "ipc/monotonic_clock.h"
#include "ring/ring_file_fixture.h"
#include "support/child_process.h"
#include "support/threads.h"

using namespace zav_shm;

namespace {

using Words = std::vector<std::string>;

constexpr std::chrono::hours patience{12};  // CTest has a limit of its own

class Ring_Process : public Ring_File {
protected:
    static Child_Process start(const Words& arguments) {
        return start(Words{ZAV_TEST_RING_ROLE}, arguments);
    }

    Child_Process start_writer(const std::string& history, const std::string& index,
                               const std::string& test_point = {}) const {
        Words program = writer_program();
        if (!test_point.empty()) {
            program.insert(program.begin(), {"/usr/bin/env", "ZAV_SHM_TEST_POINT=" + test_point});
        }
        return start(program, {"write", path_, history, "1000", index, "0", "0"});
    }

    static Words writer_program() {
        const char* const other = std::getenv("ZAV_SHM_RING_WRITER");
        if (other == nullptr) {
            return {ZAV_TEST_RING_ROLE};
        }
        std::istringstream words(other);  // an emulator may stand in front
        return {std::istream_iterator<std::string>(words), {}};
    }

    static Child_Process start(Words program, const Words& arguments) {
        program.insert(program.end(), arguments.begin(), arguments.end());
        return Child_Process(program);
    }

    /// Reads from the oldest record on until nothing more is there; every record has to be right.
    static std::uint64_t read_what_is_there(Ring_Reader& reader) {
        std::uint64_t count = 0;
        Ring_Record record;
        reader.move_to(reader.oldest());
        for (; reader.look(record) == Look::record; reader.advance()) {
            EXPECT_TRUE(holds_pattern(record.bytes, record.number)) << record.number;
            EXPECT_TRUE(has_tags_of_record(record.entry, record.number)) << record.number;
            ++count;
        }
        EXPECT_EQ(reader.look(record), Look::nothing);
        return count;
    }
};

// ---- readers that are overtaken on purpose ----

class Overtaken_Reader : public Ring_Process, public testing::WithParamInterface<const char*> {
protected:
    static std::string records() {
        const char* const wanted = std::getenv("ZAV_SHM_RING_RECORDS");
        return wanted != nullptr ? wanted : "50000";
    }
};

TEST_P(Overtaken_Reader, takes_no_wrong_byte_for_right) {
    Child_Process reader = start({"read", path_, GetParam(), records()});
    Child_Process writer = start_writer("30000", "128");
    ASSERT_EQ(reader.read_line(), "open");
    const auto summary = reader.read_line(patience);
    ASSERT_TRUE(summary);
    writer.signal(SIGTERM);
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(reader.wait(), 0) << *summary;
    std::istringstream words(*summary);
    std::string name;
    std::uint64_t whole = 0;
    std::uint64_t overtaken_in_use = 0;
    words >> name >> whole >> name >> overtaken_in_use;
    EXPECT_EQ(std::to_string(whole), records());
    EXPECT_GT(overtaken_in_use, 0U) << *summary;
    std::printf("| %s | %s |\n", GetParam(), summary->c_str());
}

INSTANTIATE_TEST_SUITE_P(Reading, Overtaken_Reader, testing::Values("mapped", "in_place", "copied"),
                         [](const auto& way) { return std::string(way.param); });

// The reader sleeps between any two records. Where it is not woken, the look once a second finds
// that the ring of 64 has gone round.
TEST_F(Ring_Process, that_sleeps_is_woken_for_every_record) {
    for (const char* const way : {"mapped", "copied"}) {
        Child_Process reader = start({"read", path_, way, "700"});
        Child_Process writer =
            start(writer_program(), {"write", path_, "100000", "1000", "64", "700", "2000"});
        ASSERT_EQ(reader.read_line(), "open");
        EXPECT_EQ(reader.read_line(), "whole 700 overtaken_in_use 0 overtaken 0 lost 0 wrong 0");
        EXPECT_EQ(writer.wait(), 0);
        std::filesystem::remove(path_);
    }
}

// ---- one writer ----

TEST_F(Ring_Process, second_writer_is_told_the_process_of_the_first) {
    Child_Process first = start_writer("30000", "128");
    ASSERT_EQ(first.read_line(), "open");
    EXPECT_FALSE(open_writer());
    EXPECT_EQ(problem_.kind, Ring_Problem::Kind::held);
    EXPECT_EQ(problem_.holder, first.pid());
    Child_Process second = start_writer("30000", "128");
    EXPECT_EQ(second.read_line(),
              "refused: process " + std::to_string(first.pid()) + " has " + path_ + ".lock");
    first.kill();
    EXPECT_TRUE(open_writer()) << "the kernel has given the lock up";
}

// ---- killed writers ----

#ifdef ZAV_SHM_TEST_POINTS

struct Death {
    const char* point;
    int count;             // which time the writer comes there
    std::uint64_t newest;  // whole records that it leaves
};

class Killed_Writer : public Ring_Process, public testing::WithParamInterface<Death> {
protected:
    std::string test_point() const {
        return "ring " + std::string(GetParam().point) + " " + std::to_string(GetParam().count) +
               " 9";
    }

    void leave_a_former_ring(int records) {
        const auto former = open_writer();
        for (int i = 0; i < records; ++i) {
            fill_with_pattern(former->reserve(10), former->last() + 1);
            former->commit(10, tags_of_record(former->last() + 1));
        }
    }
};

TEST_P(Killed_Writer, leaves_what_it_had_committed_to_readers_and_all_to_its_successor) {
    Child_Process writer = start_writer("3000", "16", test_point());
    EXPECT_EQ(writer.wait(), 128 + SIGKILL);
    Ring_Follower follower(path_, Reading::mapped);
    const bool has_name = std::string(GetParam().point) != "made";
    ASSERT_EQ(follower.changes_over(), has_name);
    EXPECT_EQ(exists("rings/CAM_LOOP_0_0.new"), !has_name);
    if (has_name) {
        Ring_Reader& reader = *follower.reader();
        EXPECT_FALSE(reader.memory().has_writer());
        EXPECT_FALSE(reader.is_closed());
        EXPECT_EQ(reader.newest(), GetParam().newest);
        const std::uint64_t whole = read_what_is_there(reader);
        EXPECT_EQ(whole, reader.newest() + 1 - reader.oldest());
        EXPECT_EQ(whole > 0, GetParam().newest > 0);
    }

    const auto successor = open_writer();
    ASSERT_TRUE(successor) << problem_.text;
    write(*successor, 100);
    const Stopwatch watch;
    while (!follower.changes_over()) {
        follower.wait(monotonic_ns() + 1000 * ms);
    }
    EXPECT_LT(watch.elapsed().count(), 500) << "found by the look once a second";
    EXPECT_EQ(read_all(follower), 1U);
}

// At its last point a writer has stored the head and woken nobody.
TEST_P(Killed_Writer, is_read_to_its_last_record_by_who_was_reading_and_soon) {
    Ring_Follower follower(path_, Reading::mapped);
    Child_Process writer = start_writer("3000", "16", test_point());
    std::optional<Stopwatch> since_death;
    std::uint64_t newest = 0;
    std::vector<std::byte> bytes;
    while (newest < GetParam().newest || !writer.wait(std::chrono::milliseconds(0))) {
        if (!since_death && writer.wait(std::chrono::milliseconds(0))) {
            since_death.emplace();
        }
        ASSERT_TRUE(!since_death || since_death->elapsed().count() < 3000);
        Ring_Record record;
        const Look seen =
            follower.reader() == nullptr ? Look::nothing : follower.reader()->look(record);
        ASSERT_NE(seen, Look::broken);
        if (seen == Look::overtaken) {
            follower.reader()->move_to(follower.reader()->oldest());
        } else if (seen == Look::record) {
            bytes.resize(record.entry.length);
            ASSERT_TRUE(follower.reader()->copy(record, 0, bytes));
            const bool is_right = holds_pattern(bytes, record.number);
            if (follower.reader()->is_in_reach(record.number)) {
                ASSERT_TRUE(is_right) << record.number;
                newest = record.number;
            }
            follower.reader()->advance();
        } else if (follower.changes_over()) {
            follower.reader()->move_to(1);
        } else {
            follower.wait(monotonic_ns() + 200 * ms);
        }
    }
    EXPECT_EQ(newest, GetParam().newest);
    EXPECT_TRUE(open_writer()) << "and nothing is left of what it had begun";
}

INSTANTIATE_TEST_SUITE_P(
    At, Killed_Writer,
    testing::Values(Death{"made", 1, 0}, Death{"named", 1, 0}, Death{"reserve", 1, 0},
                    Death{"reserve", 200, 199}, Death{"tail", 1, 0}, Death{"tail", 200, 199},
                    Death{"record", 1, 0}, Death{"record", 201, 200}, Death{"entry", 1, 0},
                    Death{"entry", 202, 201}, Death{"head", 1, 1}, Death{"head", 203, 203}),
    [](const auto& death) {
        return std::string(death.param.point) + "_" + std::to_string(death.param.count);
    });

class Killed_Successor : public Killed_Writer {};

TEST_P(Killed_Successor, leaves_the_former_ring_or_an_empty_one_of_its_own) {
    leave_a_former_ring(5);
    Child_Process writer = start_writer("3000", "16", test_point());
    EXPECT_EQ(writer.wait(), 128 + SIGKILL);
    Ring_Follower follower(path_, Reading::mapped);
    ASSERT_TRUE(follower.changes_over());
    const bool is_replaced = std::string(GetParam().point) != "made";
    EXPECT_EQ(read_what_is_there(*follower.reader()), is_replaced ? 0U : 5U);
    EXPECT_TRUE(open_writer()) << problem_.text;
}

INSTANTIATE_TEST_SUITE_P(At, Killed_Successor,
                         testing::Values(Death{"made", 1, 0}, Death{"named", 1, 0},
                                         Death{"tail", 1, 0}, Death{"entry", 1, 0}),
                         [](const auto& death) { return std::string(death.param.point); });

#endif

// ---- hostile ones ----

// What an application does, with all that a reader offers, for a while.
class Worst_User {
public:
    Worst_User(const std::string& path, Reading reading) : path_(path), reading_(reading) {}

    void read_for(std::chrono::milliseconds time) {
        const std::int64_t end = monotonic_ns() + time.count() * ms;
        for (int round = 0; monotonic_ns() < end; ++round) {
            if (round % 100 == 0) {
                follower_ = std::make_unique<Ring_Follower>(path_, reading_);
                follower_->changes_over();
            }
            if (follower_->reader() == nullptr) {
                wait(end);
            } else {
                look(end);
            }
        }
    }

    std::uint64_t looks() const { return looks_; }
    std::uint64_t records() const { return records_; }

private:
    void wait(std::int64_t end) {
        const std::int64_t begin = monotonic_ns();
        if (!follower_->changes_over()) {
            follower_->wait(std::min(end, begin + ms / 10));
        }
        ASSERT_LT(monotonic_ns() - begin, 1000 * ms) << "waited longer than it was told";
    }

    void look(std::int64_t end) {
        Ring_Reader& reader = *follower_->reader();
        Ring_Record record;
        ++looks_;
        switch (reader.look(record)) {
            case Look::record:
                use(reader, record);
                reader.advance();
                ++records_;
                break;
            case Look::overtaken:
                reader.move_to(looks_ % 2 == 0 ? reader.oldest() : reader.safe_oldest());
                break;
            case Look::broken:
                if (looks_ % 64 == 0) {
                    follower_->give_up("of the test");
                    EXPECT_EQ(follower_->problem().kind, Ring_Problem::Kind::unreadable);
                } else {
                    reader.move_to(reader.newest());
                }
                break;
            case Look::nothing:
                find(reader);
                reader.move_to(looks_ % 2 == 0 ? reader.newest() : reader.oldest());
                if (looks_ % 16 == 0) {
                    wait(end);
                }
        }
    }

    // Whatever an entry says, its bytes lie among the records of the file.
    void use(const Ring_Reader& reader, const Ring_Record& record) {
        const Ring_Facts& facts = reader.memory().facts();
        ASSERT_LE(record.entry.length, facts.record_max);
        ASSERT_LE(std::uint64_t{record.entry.offset} + record.entry.length, facts.data_bytes);
        buffer_.resize(record.entry.length);
        const bool is_there = reader.copy(record, 0, buffer_);
        ASSERT_TRUE(is_there || reading_ == Reading::copied);
        for (const std::byte byte : record.bytes) {
            sum_ += static_cast<unsigned>(byte);
        }
    }

    static void find(const Ring_Reader& reader) {
        const auto wanted = [](const Ring_Entry& entry) { return entry.pts_ns == 77; };
        reader.find_back(reader.newest(), wanted);
        reader.find_on(reader.oldest(), wanted);
    }

    const std::string path_;
    const Reading reading_;
    std::unique_ptr<Ring_Follower> follower_;
    std::vector<std::byte> buffer_;
    std::uint64_t looks_ = 0;
    std::uint64_t records_ = 0;
    unsigned sum_ = 0;
};

class Hostile_Process : public Ring_Process {
protected:
    void SetUp() override {
        Ring_Process::SetUp();
        auto writer = open_writer();
        for (std::uint64_t number = 1; number <= 1200; ++number) {
            write(*writer, length_of_record(number, 4096));
        }
    }

    // The one who comes next finds nothing of it, and neither do its readers.
    void expect_recovery() {
        const auto successor = open_writer();
        ASSERT_TRUE(successor) << problem_.text;
        write(*successor, 100);
        Ring_Follower follower(path_, Reading::mapped);
        ASSERT_TRUE(follower.changes_over()) << follower.problem().text;
        EXPECT_EQ(read_all(follower), 1U);
    }
};

TEST_F(Hostile_Process, that_scribbles_at_full_speed_harms_no_reader) {
    Child_Process hostile = start({"scribble", path_, "ring"});
    ASSERT_EQ(hostile.read_line(), "open");
    for (const Reading reading : {Reading::mapped, Reading::copied}) {
        Worst_User user(path_, reading);
        user.read_for(std::chrono::milliseconds(1000));
        EXPECT_GT(user.looks(), 1000U);
        EXPECT_GT(user.records(), 0U) << "it was never led on";
    }
    hostile.kill();
    expect_recovery();
}

TEST_F(Hostile_Process, that_scribbles_over_the_header_harms_nobody_who_opens_it) {
    Child_Process hostile = start({"scribble", path_, "header"});
    ASSERT_EQ(hostile.read_line(), "open");
    const std::int64_t end = monotonic_ns() + 500 * ms;
    for (int i = 0; monotonic_ns() < end; ++i) {
        Worst_User user(path_, i % 2 == 0 ? Reading::mapped : Reading::copied);
        user.read_for(std::chrono::milliseconds(1));
    }
    hostile.kill();
    expect_recovery();
}

TEST_F(Hostile_Process, that_shrinks_the_file_harms_no_reader_that_copies) {
    Child_Process hostile = start({"shrink", path_});
    ASSERT_EQ(hostile.read_line(), "open");
    Worst_User user(path_, Reading::copied);
    user.read_for(std::chrono::milliseconds(1000));
    hostile.kill();
    expect_recovery();
}

// No wait is longer than the look once a second, however the words stand.
TEST_F(Hostile_Process, that_was_there_keeps_nobody_waiting_for_its_successor) {
    Child_Process hostile = start({"scribble", path_, "header"});
    ASSERT_EQ(hostile.read_line(), "open");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    hostile.kill();
    Ring_Follower follower(path_, Reading::copied);
    follower.changes_over();
    const auto successor = open_writer();
    write(*successor, 100);
    Ring_Record record;
    const Stopwatch watch;
    while (follower.reader() == nullptr ||
           follower.reader()->memory().facts().epoch != successor->memory()->facts().epoch) {
        ASSERT_LT(watch.elapsed().count(), 4000);
        const Look seen =
            follower.reader() == nullptr ? Look::nothing : follower.reader()->look(record);
        if (seen == Look::record) {
            follower.reader()->advance();
        } else if (seen == Look::overtaken) {
            follower.reader()->move_to(follower.reader()->safe_oldest());
        } else if (seen == Look::broken) {
            follower.give_up("of the test");
        } else if (!follower.changes_over()) {
            follower.wait(monotonic_ns() + 10'000 * ms);
        }
    }
    EXPECT_EQ(read_all(follower), 1U);
}

}  // namespace
