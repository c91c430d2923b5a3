// SPDX-License-Identifier: Apache-2.0
//
// One writer and readers of one ring in private memory: the layout's rules.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ipc/monotonic_clock.h"
#include "ipc/test_point.h"
#include "ring/pattern.h"
#include "ring/ring_reader.h"
#include "ring/ring_writer.h"

using namespace zav_shm;
using Look = Ring_Reader::Look;

namespace {

class Private_Ring : public testing::Test {
protected:
    void make(const Ring_Size& size, std::uint64_t first = 1) {
        Ring_Problem problem;
        writer_ = Ring_Writer::open_private(size, problem, first);
        ASSERT_TRUE(writer_) << problem.text;
        reader_.emplace(writer_->memory());
    }

    std::uint64_t write(std::size_t length, std::uint32_t flags = 0, std::int64_t time_ns = 0) {
        const auto room = writer_->reserve(length);
        EXPECT_EQ(room.size(), length);
        fill_with_pattern(room, writer_->last() + 1);
        return writer_->commit(length, {.flags = flags, .pts_ns = 5, .time_ns = time_ns});
    }

    // Every record in reach holds what was written.
    void expect_history_to_be_right() {
        Ring_Record record;
        for (reader_->move_to(reader_->oldest()); reader_->look(record) == Look::record;
             reader_->advance()) {
            EXPECT_TRUE(holds_pattern(record.bytes, record.number)) << record.number;
            EXPECT_TRUE(reader_->is_in_reach(record.number));
        }
        EXPECT_EQ(reader_->cursor(), writer_->last() + 1);
    }

    std::unique_ptr<Ring_Writer> writer_;
    std::optional<Ring_Reader> reader_;
};

TEST_F(Private_Ring, is_empty_before_the_first_record) {
    make({4096, 1024});
    Ring_Record record;
    EXPECT_EQ(reader_->look(record), Look::nothing);
    EXPECT_EQ(reader_->newest(), 0U);
    EXPECT_EQ(reader_->oldest(), 1U);
    EXPECT_EQ(reader_->cursor(), 1U);
    EXPECT_FALSE(reader_->find_back(~std::uint64_t{0}, [](const auto&) { return true; }));
    EXPECT_FALSE(reader_->find_on(0, [](const auto&) { return true; }));
    EXPECT_EQ(reader_->safe_oldest(), 1U);
}

TEST_F(Private_Ring, hands_out_what_was_written_with_its_tags) {
    make({4096, 1024});
    EXPECT_EQ(write(100, ring_flag::key | 2, 77), 1U);
    Ring_Record record;
    ASSERT_EQ(reader_->look(record), Look::record);
    EXPECT_EQ(record.number, 1U);
    EXPECT_EQ(record.entry.flags, ring_flag::key | 2);
    EXPECT_EQ(record.entry.pts_ns, 5);
    EXPECT_EQ(record.entry.time_ns, 77);
    ASSERT_EQ(record.bytes.size(), 100U);
    EXPECT_TRUE(holds_pattern(record.bytes, 1));
    EXPECT_EQ(reader_->look(record), Look::record) << "the cursor stays";
    reader_->advance();
    EXPECT_EQ(reader_->look(record), Look::nothing);
}

TEST_F(Private_Ring, refuses_a_record_beyond_the_greatest_and_takes_the_greatest_and_an_empty_one) {
    make({4096, 1000});
    EXPECT_TRUE(writer_->reserve(1001).empty());
    EXPECT_EQ(writer_->commit(0, {}), 0U) << "nothing was reserved";
    EXPECT_EQ(write(1000), 1U);
    EXPECT_EQ(write(0), 2U);
    EXPECT_EQ(write(1), 3U);
    expect_history_to_be_right();
}

TEST_F(Private_Ring, an_empty_record_may_be_copied_to_nowhere) {
    make({4096, 100});
    write(0);
    Ring_Record record;
    ASSERT_EQ(reader_->look(record), Look::record);
    EXPECT_TRUE(reader_->copy(record, 0, {}));
    EXPECT_FALSE(reader_->copy(record, 1, {}));
}

TEST_F(Private_Ring, keeps_the_history_asked_for_whatever_the_lengths) {
    for (const std::uint32_t history : {1U, 64U, 4000U, 100'000U}) {
        make({history, 3000, 4096});
        for (std::uint64_t number = 1; number < 3000; ++number) {
            write(length_of_record(number, 3000));
            std::uint64_t held = 0;
            for (std::uint64_t back = writer_->last();
                 back >= 1 && held + length_of_record(back, 3000) <= history; --back) {
                held += (length_of_record(back, 3000) + 63) / 64 * 64;
                ASSERT_LE(reader_->oldest(), back) << "at " << number << " of " << history;
            }
        }
        expect_history_to_be_right();
    }
}

TEST_F(Private_Ring, keeps_no_more_records_than_it_has_entries) {
    make({100'000, 64, 16});
    for (std::uint64_t i = 0; i < 100; ++i) {
        write(1);
        EXPECT_EQ(reader_->newest() - reader_->oldest() + 1, std::min<std::uint64_t>(i + 1, 16));
    }
    expect_history_to_be_right();
}

// A room of the greatest size, of which little is used, costs history only where it has to begin
// with the next lap: at most as much as the greatest record.
TEST_F(Private_Ring, keeps_its_history_beside_rooms_of_the_greatest_record) {
    make({300'000, 100'000, 4096});
    constexpr std::uint64_t kept = (300'000 - 100'000) / 128;
    for (std::uint64_t i = 0; i < 10'000; ++i) {
        const auto room = writer_->reserve(100'000);
        ASSERT_EQ(room.size(), 100'000U);
        ASSERT_GE(reader_->newest() + 1 - reader_->oldest(), std::min<std::uint64_t>(i, kept)) << i;
        fill_with_pattern(room.first(100), writer_->last() + 1);
        writer_->commit(100, {});
    }
    expect_history_to_be_right();
}

TEST_F(Private_Ring, a_room_that_is_reserved_again_is_the_next_records) {
    make({4096, 1024});
    writer_->reserve(10);
    const auto room = writer_->reserve(1024);
    ASSERT_EQ(room.size(), 1024U);
    EXPECT_EQ(writer_->commit(1025, {}), 0U) << "more than the room";
    EXPECT_EQ(writer_->commit(1, {}), 0U) << "the room is gone";
    write(700);
    expect_history_to_be_right();
}

// The end of a lap that was skipped holds older records than what is overwritten behind it.
TEST_F(Private_Ring, hands_out_no_wrong_byte_as_right_while_it_is_lapped_on_purpose) {
    make({20'000, 2000, 256});
    std::atomic<bool> ends{false};
    std::thread writing([&] {
        while (!ends) {
            write(length_of_record(writer_->last() + 1, 2000));
        }
    });
    std::uint64_t right = 0;
    std::uint64_t overtaken_in_mid_copy = 0;
    std::uint64_t copies = 0;
    std::vector<std::byte> copy(2000);
    const std::int64_t end = monotonic_ns() + 1'000'000'000;
    while (monotonic_ns() < end) {
        Ring_Record record;
        const Look look = reader_->look(record);
        ASSERT_NE(look, Look::broken);
        if (look == Look::overtaken) {
            reader_->move_to(reader_->oldest());
        } else if (look == Look::record) {
            // In two halves. Between them it stands still now and then, until it is overtaken.
            const auto bytes = std::span(copy).first(record.entry.length);
            const std::size_t half = bytes.size() / 2;
            ASSERT_TRUE(reader_->copy(record, 0, bytes.first(half)));
            const bool stands_still = ++copies % 64 == 0;
            while (stands_still && reader_->is_in_reach(record.number)) {
                std::this_thread::yield();
            }
            ASSERT_TRUE(reader_->copy(record, half, bytes.subspan(half)));
            const bool is_right = holds_pattern(bytes, record.number);
            if (reader_->is_in_reach(record.number)) {
                ASSERT_TRUE(is_right) << record.number;
                ++right;
            } else {
                ++overtaken_in_mid_copy;
            }
            reader_->advance();
        }
    }
    ends = true;
    writing.join();
    EXPECT_GT(right, 100U);
    EXPECT_GT(overtaken_in_mid_copy, 0U);
}

TEST_F(Private_Ring, numbers_go_on_beyond_32_bits) {
    const std::uint64_t first = (std::uint64_t{1} << 32U) - 40;
    make({4000, 100, 32}, first);
    EXPECT_EQ(reader_->newest(), first - 1);
    for (std::uint64_t i = 0; i < 100; ++i) {
        write(length_of_record(writer_->last() + 1, 100));
        const Ring_Reader late(writer_->memory());
        EXPECT_EQ(late.newest(), writer_->last());
        EXPECT_EQ(late.cursor(), writer_->last() + 1);
        EXPECT_EQ(late.newest() - late.oldest() + 1, std::min<std::uint64_t>(i + 1, 32));
    }
    expect_history_to_be_right();
    EXPECT_GT(reader_->cursor() >> 32U, 0U);
}

// The room destroys all that there is: no record is left, and yet the numbers go on where they
// were.
TEST_F(Private_Ring, a_reader_that_comes_while_no_record_is_in_reach_knows_the_numbers) {
    const std::uint64_t first = (std::uint64_t{7} << 32U) + 5;
    make({64, 4096}, first);
    EXPECT_EQ(reader_->cursor(), first);
    EXPECT_EQ(reader_->newest(), first - 1);
    EXPECT_EQ(reader_->oldest(), first);
    write(4096);
    writer_->reserve(4096);
    const Ring_Reader late(writer_->memory());
    EXPECT_EQ(late.cursor(), first + 1);
    EXPECT_EQ(late.oldest(), first + 1);
    writer_->commit(1, {});
    Ring_Record record;
    EXPECT_EQ(late.look(record), Look::record);
}

TEST_F(Private_Ring, a_reader_that_stands_still_is_told_that_it_was_overtaken) {
    make({1000, 100, 16});
    write(50);
    Ring_Record record;
    ASSERT_EQ(reader_->look(record), Look::record);
    for (int i = 0; i < 16; ++i) {
        EXPECT_TRUE(reader_->is_in_reach(1) || i == 15);
        write(10);
    }
    EXPECT_FALSE(reader_->is_in_reach(1));
    EXPECT_EQ(reader_->look(record), Look::overtaken);
    reader_->move_to(reader_->safe_oldest());
    EXPECT_EQ(reader_->cursor(), reader_->oldest() + 3) << "an eighth of 16, and one";
    EXPECT_EQ(reader_->look(record), Look::record);
}

TEST_F(Private_Ring, tells_before_a_room_is_reserved_what_it_will_cost) {
    make({4000, 1000, 64});
    for (int i = 0; i < 200; ++i) {
        for (const std::size_t bytes : {0U, 1U, 500U, 1000U}) {
            const std::uint64_t told = writer_->oldest_after(bytes);
            EXPECT_EQ(reader_->oldest(), i == 0 ? 1 : writer_->oldest_after(0));
            EXPECT_GE(told, reader_->oldest());
            EXPECT_LE(told, writer_->last() + 1);
        }
        const std::size_t length = length_of_record(writer_->last() + 1, 1000);
        const std::uint64_t told = writer_->oldest_after(length);
        write(length);
        EXPECT_EQ(reader_->oldest(), told);
    }
}

#ifdef ZAV_SHM_TEST_POINTS

/// Calls a function once, where a reader comes to a point.
class At_Point {
public:
    At_Point(std::string point, std::function<void()> call)
        : hook_([this, point = std::move(point), call = std::move(call)](
                    const std::string& place, const std::string& object) {
              if (!is_done_ && place == "ring" && object == point) {
                  is_done_ = true;
                  call();
              }
          }) {
        set_test_hook(&hook_);
    }
    ~At_Point() {
        set_test_hook(nullptr);
        EXPECT_TRUE(is_done_);
    }
    At_Point(const At_Point&) = delete;
    At_Point& operator=(const At_Point&) = delete;

private:
    bool is_done_ = false;
    const Test_Hook hook_;
};

// The writer goes around the whole ring while the reader is between two of its steps.
TEST_F(Private_Ring, a_reader_that_is_lapped_at_any_step_is_told_so_and_the_writer_not_blamed) {
    for (const std::uint64_t first : {std::uint64_t{1}, (std::uint64_t{1} << 32U) - 2}) {
        for (const char* const point : {"head_read", "entry_read"}) {
            make({4000, 100, 4}, first);
            write(10);
            Ring_Record record;
            const At_Point lapped(point, [this] {
                for (int i = 0; i < 10; ++i) {
                    write(100);
                }
            });
            reader_->move_to(first);
            EXPECT_EQ(reader_->look(record), Look::overtaken) << point << " " << first;
        }
    }
}

TEST_F(Private_Ring, an_oldest_that_is_lapped_while_it_is_asked_for_is_an_old_one_and_no_nonsense) {
    make({4000, 100, 4});
    for (int i = 0; i < 4; ++i) {
        write(10);
    }
    const At_Point lapped("tail_read", [this] {
        for (int i = 0; i < 10; ++i) {
            write(100);
        }
    });
    EXPECT_EQ(reader_->oldest(), 1U);
    EXPECT_EQ(reader_->oldest(), 11U);
}

#endif

TEST_F(Private_Ring, finds_records_from_either_side) {
    make({100'000, 100, 64});
    for (int i = 1; i <= 100; ++i) {
        write(10, i % 10 == 0 ? ring_flag::key : 0, i * 1000);
    }
    const auto is_key = [](const Ring_Entry& entry) { return (entry.flags & ring_flag::key) != 0; };
    EXPECT_EQ(reader_->find_back(reader_->newest(), is_key), 100U);
    EXPECT_EQ(reader_->find_back(99, is_key), 90U);
    EXPECT_EQ(reader_->find_back(39, is_key), std::nullopt) << "37 is the oldest";
    EXPECT_EQ(reader_->find_on(0, is_key), 40U);
    EXPECT_EQ(reader_->find_on(41, is_key), 50U);
    EXPECT_EQ(reader_->find_on(101, is_key), std::nullopt);
    EXPECT_EQ(reader_->find_back(~std::uint64_t{0},
                                 [](const auto& entry) { return entry.time_ns <= 72'500; }),
              72U);
}

TEST_F(Private_Ring, wait_ends_with_a_record_a_wake_and_the_deadline) {
    make({4096, 100});
    Ring_Record record;
    ASSERT_EQ(reader_->look(record), Look::nothing);
    EXPECT_EQ(reader_->wait(monotonic_ns() + 5'000'000), Futex_Wait::timed_out);
    EXPECT_EQ(reader_->wait(0), Futex_Wait::timed_out);
    std::atomic<int> step{0};
    std::thread other([&] {
        write(1);
        step = 1;
        while (step == 1) {
            reader_->wake();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    while (reader_->look(record) == Look::nothing) {
        reader_->wait(monotonic_ns() + 10'000'000'000);
    }
    reader_->advance();
    while (step == 0) {
    }
    ASSERT_EQ(reader_->look(record), Look::nothing);
    EXPECT_EQ(reader_->wait(monotonic_ns() + 10'000'000'000), Futex_Wait::look_again);
    step = 2;
    other.join();
}

// Whatever the words say, a reader that does what it is told comes to an end: at a record, at
// nothing to read, where it sleeps, or at a broken ring, which it gives up.
TEST_F(Private_Ring, of_any_head_and_tail_lets_no_reader_go_round_and_round) {
    make({4096, 100, 16});
    for (int i = 0; i < 40; ++i) {
        write(50);
    }
    std::vector<std::uint32_t> values;
    for (const std::uint32_t middle : {0U, 40U, 0x80000000U}) {
        for (std::uint32_t step = 0; step < 40; ++step) {
            values.push_back(middle - 20 + step);
        }
    }
    Ring_Memory& memory = *writer_->memory();
    for (const std::uint32_t head : values) {
        for (const std::uint32_t tail : values) {
            memory.store_release(ring_head_offset, head);
            memory.store_release(ring_tail_offset, tail);
            for (const std::uint64_t begin : {std::uint64_t{0}, std::uint64_t{head} + 1,
                                              std::uint64_t{tail}, ~std::uint64_t{0}}) {
                Ring_Record record;
                int steps = 0;
                reader_->move_to(begin);
                while (reader_->look(record) == Look::overtaken) {
                    reader_->move_to(steps % 2 == 0 ? reader_->oldest() : reader_->safe_oldest());
                    ASSERT_LT(++steps, 4) << "head " << head << " tail " << tail;
                }
            }
        }
    }
}

TEST_F(Private_Ring, a_cursor_at_any_number_is_no_trap) {
    make({4096, 100, 16});
    write(50);
    for (const std::uint64_t number :
         {std::uint64_t{0}, std::uint64_t{1} << 31U, std::uint64_t{1} << 63U,
          (std::uint64_t{1} << 63U) - 1, ~std::uint64_t{0}}) {
        Ring_Record record;
        reader_->move_to(number);
        EXPECT_NE(reader_->look(record), Look::record) << number;
        reader_->newest();
        reader_->safe_oldest();
        EXPECT_FALSE(reader_->find_back(number, [](const auto&) { return false; }));
        EXPECT_FALSE(reader_->find_on(number, [](const auto&) { return false; }));
    }
}

TEST_F(Private_Ring, a_closed_writer_writes_nothing_more_and_its_records_stay) {
    make({4096, 100});
    write(10);
    EXPECT_FALSE(reader_->is_closed());
    writer_->close();
    EXPECT_TRUE(reader_->is_closed());
    EXPECT_TRUE(writer_->reserve(1).empty());
    Ring_Record record;
    EXPECT_EQ(reader_->look(record), Look::record);
}

// Who had closed has given its lock up: what it writes then is another one's affair.
TEST_F(Private_Ring, a_room_is_lost_with_the_closing) {
    make({4096, 100});
    ASSERT_EQ(writer_->reserve(10).size(), 10U);
    writer_->close();
    EXPECT_EQ(writer_->commit(10, {}), 0U);
    EXPECT_EQ(reader_->newest(), 0U);
}

TEST(Ring_Size, names_the_limit_that_is_exceeded) {
    std::string reason;
    EXPECT_FALSE((Ring_Size{4'000'000'000, 400'000'000}.file_bytes(&reason)));
    EXPECT_EQ(reason, "4400000000 bytes of records; the limits are 1 and 4294967232");
    EXPECT_FALSE((Ring_Size{100, 100, 5'000'000}.file_bytes(&reason)));
    EXPECT_EQ(reason, "5000000 records; the limit is 4194304");
    EXPECT_FALSE((Ring_Size{100, 100, 3'000'000'000}.file_bytes(&reason)));
    EXPECT_EQ(reason, "3000000000 records; the limit is 4194304");
    EXPECT_FALSE((Ring_Size{0, 0}.file_bytes(&reason)));
    EXPECT_EQ((Ring_Size{2 << 20, 1 << 20}.file_bytes()), 4096U + 2048 * 32 + (3 << 20));
    EXPECT_EQ((Ring_Size{100, 100, 1}.file_bytes()), 4096U + 4096 + 128 + 128);
}

}  // namespace
