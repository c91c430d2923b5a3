// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>

#include "support/channel.h"
#include "support/interrupted.h"
#include "support/threads.h"

namespace {

class Channel_End : public Channels {
protected:
    std::unique_ptr<SEM_CTRL> make_semaphore(const std::string& name) {
        leaves_semaphore(name);
        return std::make_unique<SEM_CTRL>(name.c_str(), true);
    }

    template <class End>
    void give_three_semaphores(End& end, const std::string& prefix) {
        for (const char* number : {"0", "1", "2"}) {
            end.sem_list.push_back(make_semaphore(prefix + number));
        }
    }

    template <class End>
    void give_slot(End& end, int oflag) {
        end.shm = std::make_unique<IPC_SHMEMORY>(producer_names().shm_path.c_str(), oflag);
    }

    static void post(const std::unique_ptr<SEM_CTRL>& semaphore, int times) {
        for (int i = 0; i < times; ++i) {
            sem_post(semaphore->sem);
        }
    }
};

template <class End>
std::string dump(const End& end) {
    std::ostringstream out;
    out << end;
    return out.str();
}

// ---- slot copies ----

TEST_F(Channel_End, writes_to_and_reads_from_the_start_of_the_slot) {
    make_slot(4096);
    Open_Distributor writing;
    Open_Receiver reading;
    give_slot(writing, O_RDWR);
    give_slot(reading, O_RDONLY);
    std::array<char, 8> sent{"abcdefg"};
    std::array<char, 8> got{};
    EXPECT_EQ(writing.distribute_frame(sent.data(), 8), 8);
    EXPECT_EQ(reading.receive_frame(got.data(), 8), 8);
    EXPECT_EQ(got, sent);
}

TEST_F(Channel_End, writes_nothing_for_null_data_or_zero_or_negative_length) {
    make_slot(4096);
    Open_Distributor writing;
    give_slot(writing, O_RDWR);
    std::array<char, 8> data{"abcdefg"};
    EXPECT_EQ(writing.distribute_frame(nullptr, 8), 0);
    EXPECT_EQ(writing.distribute_frame(data.data(), 0), 0);
    EXPECT_EQ(writing.distribute_frame(data.data(), -1), 0);
    EXPECT_EQ(*static_cast<char*>(writing.shm->mem_addr), '\0');
}

TEST_F(Channel_End, reads_nothing_into_null_or_for_a_negative_length) {
    make_slot(4096);
    Open_Receiver reading;
    give_slot(reading, O_RDONLY);
    char byte = 'x';
    EXPECT_EQ(output_of([&] {
                  EXPECT_EQ(reading.receive_frame(nullptr, 8), 0);
                  EXPECT_EQ(reading.receive_frame(&byte, -1), 0);
                  EXPECT_EQ(reading.receive_frame(&byte, 0), 0);
              }),
              "");
    EXPECT_EQ(byte, 'x');
}

TEST_F(Channel_End, reading_more_than_the_segment_copies_all_and_returns_its_size) {
    make_slot(100);
    Open_Receiver reading;
    give_slot(reading, O_RDONLY);
    std::vector<unsigned char> buffer(1000, 0xEE);
    EXPECT_EQ(reading.receive_frame(buffer.data(), 1000), 228);
    EXPECT_EQ(buffer, std::vector<unsigned char>(1000, 0));
}

TEST_F(Channel_End, copies_never_leave_the_mapping) {
    make_slot(100);
    Open_Distributor writing;
    Open_Receiver reading;
    give_slot(writing, O_RDWR);
    give_slot(reading, O_RDONLY);
    const int much = 64 * 1024 * 1024;
    std::vector<unsigned char> buffer(static_cast<std::size_t>(much), 0xEE);
    EXPECT_EQ(writing.distribute_frame(buffer.data(), much), much);
    EXPECT_EQ(reading.receive_frame(buffer.data(), much), 228);
}

TEST_F(Channel_End, without_a_segment_copies_nothing_and_the_reader_says_so) {
    Open_Distributor writing;
    Open_Receiver reading;
    std::array<char, 4> data{};
    EXPECT_EQ(writing.distribute_frame(data.data(), 4), 0);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(reading.receive_frame(data.data(), 4), 0); }),
              "Get NULL mem_addr!!!\n");
    EXPECT_EQ(reading.change_shm("/shm/ANY"), 2);
}

TEST_F(Channel_End, with_a_failed_mapping_copies_nothing_and_the_reader_says_so) {
    make_slot(100);
    IPC_SHMEMORY::set_root_path("/somewhere/else");
    Open_Distributor writing;
    Open_Receiver reading;
    std::array<char, 4> data{};
    output_of([&] {
        give_slot(writing, O_RDWR);
        give_slot(reading, O_RDONLY);
    });
    EXPECT_EQ(writing.distribute_frame(data.data(), 4), 0);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(reading.receive_frame(data.data(), 4), 0); }),
              "Get NULL mem_addr!!!\n");
    output_of([&] {
        writing.shm.reset();
        reading.shm.reset();
    });
}

TEST_F(Channel_End, changes_its_segment_through_the_handle) {
    make_slot(100);
    make_slot(200, "CAM_REC");
    Open_Receiver reading;
    give_slot(reading, O_RDONLY);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(reading.change_shm("/shm/CAM_REC_0_0"), 1); }),
              "Change SHM from /shm/CAM_LOOP_0_0 to /shm/CAM_REC_0_0\n");
    EXPECT_EQ(reading.shm->size, 328U);
}

// ---- semaphore values ----

TEST_F(Channel_End, value_of_a_missing_list_entry_is_minus_one) {
    Open_Distributor writing;
    Open_Receiver reading;
    EXPECT_EQ(writing.get_sem_value(0), -1);
    give_three_semaphores(writing, "/W");
    give_three_semaphores(reading, "/R");
    post(writing.sem_list[2], 2);
    writing.sem_list[1].reset();
    EXPECT_EQ(writing.get_sem_value(-1), -1);
    EXPECT_EQ(writing.get_sem_value(3), -1);
    EXPECT_EQ(writing.get_sem_value(1), -1);
    EXPECT_EQ(writing.get_sem_value(2), 2);
    EXPECT_EQ(reading.get_sem_value(-1), -1);
    EXPECT_EQ(reading.get_sem_value(3), -1);
    EXPECT_EQ(reading.get_sem_value(0), 0);
}

TEST_F(Channel_End, writing_end_takes_up_and_down_from_the_named_semaphores) {
    Open_Distributor writing;
    give_three_semaphores(writing, "/L");
    writing.sem_up = make_semaphore("/UP");
    writing.sem_down = make_semaphore("/DOWN");
    post(writing.sem_up, 2);
    post(writing.sem_down, 3);
    EXPECT_EQ(writing.get_sem_up_value(), 2);
    EXPECT_EQ(writing.get_sem_down_value(), 3);
    EXPECT_EQ(output_of([&] { writing.get_sem_value(); }), "Distributor (2, 3)\n");
}

TEST_F(Channel_End, reading_end_takes_up_and_down_from_the_list_but_prints_the_named) {
    Open_Receiver reading;
    give_three_semaphores(reading, "/L");
    reading.sem_up = make_semaphore("/UP");
    reading.sem_down = make_semaphore("/DOWN");
    post(reading.sem_list[0], 1);
    post(reading.sem_list[1], 4);
    post(reading.sem_up, 2);
    post(reading.sem_down, 3);
    EXPECT_EQ(reading.get_sem_up_value(), 1);
    EXPECT_EQ(reading.get_sem_down_value(), 4);
    EXPECT_EQ(output_of([&] { reading.get_sem_value(); }), "Receiver (2, 3)\n");
}

// ---- start, timed wait, equality, dump ----

TEST_F(Channel_End, start_of_the_writing_end_does_nothing) {
    Open_Distributor writing;
    writing.sem_up = make_semaphore("/UP");
    writing.sem_down = make_semaphore("/DOWN");
    post(writing.sem_up, 1);
    EXPECT_EQ(output_of([&] { writing.start(); }), "");
    EXPECT_EQ(writing.get_sem_up_value(), 1);
    EXPECT_EQ(writing.get_sem_down_value(), 0);
}

TEST_F(Channel_End, start_of_the_reading_end_takes_one_post_and_posts_once) {
    Open_Receiver reading;
    reading.sem_up = make_semaphore("/UP");
    reading.sem_down = make_semaphore("/DOWN");
    post(reading.sem_up, 3);
    EXPECT_EQ(output_of([&] { reading.start(); }), "");
    EXPECT_EQ(reading.sem_up->value(), 2);
    EXPECT_EQ(reading.sem_down->value(), 1);
    reading.start();
    EXPECT_EQ(reading.sem_up->value(), 1);
    EXPECT_EQ(reading.sem_down->value(), 1);
}

TEST_F(Channel_End, timed_wait_counts_timeouts_in_a_row) {
    Open_Distributor writing;
    writing.sem_down = make_semaphore("/DOWN");
    EXPECT_EQ(writing.time_wait(1), -1);
    EXPECT_EQ(writing.time_wait(1), -1);
    EXPECT_EQ(writing.get_sem_wait_error(), 2);
    post(writing.sem_down, 1);
    EXPECT_EQ(writing.time_wait(1), 0);
    EXPECT_EQ(writing.get_sem_wait_error(), 0);
}

TEST_F(Channel_End, interrupted_timed_wait_leaves_the_count) {
    Open_Distributor writing;
    writing.sem_down = make_semaphore("/DOWN");
    EXPECT_EQ(writing.time_wait(1), -1);
    int result = 0;
    EXPECT_EQ(errno_after_interrupting([&] { result = writing.time_wait(60'000); }), EINTR);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(writing.get_sem_wait_error(), 1);
}

TEST_F(Channel_End, without_semaphores_fails_every_use_of_them_quietly) {
    Open_Distributor writing;
    Open_Receiver reading;
    EXPECT_EQ(writing.time_wait(60'000), -1);
    EXPECT_EQ(writing.get_sem_wait_error(), 0);
    EXPECT_EQ(writing.get_sem_up_value(), -1);
    EXPECT_EQ(reading.get_sem_down_value(), -1);
    EXPECT_EQ(output_of([&] {
                  writing.get_sem_value();
                  reading.get_sem_value();
                  reading.start();
              }),
              "Distributor (-1, -1)\nReceiver (-1, -1)\n");
}

TEST_F(Channel_End, with_an_empty_list_equals_every_other) {
    Open_Distributor empty;
    Open_Distributor three;
    give_three_semaphores(three, "/L");
    EXPECT_TRUE(empty == three);
    EXPECT_TRUE(empty == empty);
    EXPECT_FALSE(three == empty);
}

TEST_F(Channel_End, equality_compares_the_names_in_the_lists) {
    Open_Distributor one;
    Open_Distributor same;
    Open_Distributor other;
    give_three_semaphores(one, "/L");
    give_three_semaphores(same, "/L");
    give_three_semaphores(other, "/L");
    EXPECT_TRUE(one == same);
    other.sem_list[2] = make_semaphore("/X2");
    EXPECT_FALSE(one == other);
    other.sem_list[2].reset();
    EXPECT_FALSE(one == other);
    EXPECT_FALSE(other == one);
}

TEST_F(Channel_End, dump_shows_named_semaphores_around_the_segment) {
    make_slot(100);
    Open_Distributor writing;
    Open_Receiver reading;
    writing.sem_up = make_semaphore("/UP");
    writing.sem_down = make_semaphore("/DOWN");
    post(writing.sem_down, 1);
    EXPECT_EQ(dump(writing), "/UP 0\n/DOWN 1\n");
    give_slot(reading, O_RDONLY);
    EXPECT_EQ(dump(reading), "**************\n/shm/CAM_LOOP_0_0\n**************\n");
    reading.sem_up = make_semaphore("/RUP");
    reading.sem_down = make_semaphore("/RDOWN");
    EXPECT_EQ(dump(reading),
              "/RUP 0\n**************\n/shm/CAM_LOOP_0_0\n**************\n/RDOWN 0\n");
}

}  // namespace
