// SPDX-License-Identifier: Apache-2.0
//
// The writer and the reader of one slot, with the test in the place of the relay.
#include <algorithm>
#include <array>
#include <atomic>
#include <new>
#include <random>
#include <thread>

#include "frame/slot/slot_reader.h"
#include "frame/slot/slot_writer.h"
#include "ipc/test_point.h"
#include "stream/semaphore_roles.h"
#include "support/channel.h"
#include "support/interrupted.h"
#include "support/threads.h"

using zav_shm::Slot_Frame;
using zav_shm::Slot_Reader;
using zav_shm::Slot_Writer;
using Take = zav_shm::Slot_Reader::Take;

namespace {

constexpr std::size_t page = 4096;

class Slot : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        IPC_SHMEMORY::set_root_path("/dev/shm");
        names_.emplace(Shm_Stream_Transmission_Index("CAM_LOOP", 0, 0));
        leaves_segment("shm/CAM_LOOP_0_0");
        leaves_semaphores(*names_);
        segment_ = std::make_unique<IPC_SHMEMORY>(names_->shm_path.c_str(), O_CREAT | O_RDWR, 0600,
                                                  page + 128);
        for (const auto* name :
             {&names_->sem_path_src, &names_->sem_path_dst, &names_->sem_path_exist}) {
            const SEM_CTRL made(name->c_str(), true);
        }
        writer_ = std::make_unique<Slot_Writer>(names_->shm_path, names_->sem_path_src,
                                                names_->sem_path_dst, names_->sem_path_exist);
        reader_ = std::make_unique<Slot_Reader>(names_->shm_path, names_->sem_path_src,
                                                names_->sem_path_dst, names_->sem_path_exist);
        relay_.emplace(*names_);
    }

    void TearDown() override {
        relay_.reset();
        writer_.reset();
        reader_.reset();
        segment_.reset();
        Channels::TearDown();
    }

    ZAV_SHM_Frame_Header* header() const {
        return static_cast<ZAV_SHM_Frame_Header*>(segment_->mem_addr);
    }

    static ZAV_SHM_Frame_Header header_of(std::uint64_t sequence, std::size_t length) {
        ZAV_SHM_Frame_Header header = {};
        header.magic = zav_shm::frame_magic;
        header.version = zav_shm::frame_version;
        header.sequence = sequence;
        header.epoch = 77;
        header.payload_length = static_cast<std::uint32_t>(length);
        return header;
    }

    // As a producer does, without waiting for the slot.
    void write(std::uint64_t sequence, std::size_t length) const {
        writer_->begin();
        const auto room = writer_->room().first(length);
        std::fill(room.begin(), room.end(), static_cast<std::byte>(sequence));
        relay_->post(zav_shm::producer_side::slot_free);
        writer_->commit(header_of(sequence, length));
    }

    // What was taken.
    struct Taken : Slot_Frame {
        std::span<const std::byte> payload() const { return bytes; }
        std::vector<std::byte> bytes;
    };

    // In two halves, between which a hook may do something.
    Take take(Taken& frame) const {
        return reader_->take(frame, [&frame](const Slot_Frame&,
                                             std::span<const std::byte> payload) {
            const std::size_t half = payload.size() / 2;
            frame.bytes.assign(payload.begin(),
                               payload.begin() + static_cast<std::ptrdiff_t>(half));
            zav_shm::test_point("copy", "read");
            frame.bytes.insert(frame.bytes.end(),
                               payload.begin() + static_cast<std::ptrdiff_t>(half), payload.end());
            return true;
        });
    }

    // The semaphore "frame written" of the writer is "frame ready" of the reader here.

    std::optional<IPC_SHM_SRC_CTRL_INFO> names_;
    std::unique_ptr<IPC_SHMEMORY> segment_;
    std::unique_ptr<Slot_Writer> writer_;
    std::unique_ptr<Slot_Reader> reader_;
    std::optional<Peer> relay_;
};

TEST_F(Slot, carries_a_whole_frame_with_its_header) {
    ASSERT_TRUE(writer_->is_usable() && reader_->is_usable());
    EXPECT_EQ(writer_->capacity(), page);
    write(5, 100);
    Taken frame;
    ASSERT_EQ(take(frame), Take::frame);
    EXPECT_TRUE(frame.verified);
    EXPECT_EQ(frame.header.sequence, 5U);
    EXPECT_EQ(frame.header.epoch, 77U);
    ASSERT_EQ(frame.payload().size(), 100U);
    EXPECT_EQ(frame.payload()[99], std::byte{5});
}

TEST_F(Slot, a_frame_of_the_whole_page_and_an_empty_one_fit) {
    Taken frame;
    write(1, page);
    ASSERT_EQ(take(frame), Take::frame);
    EXPECT_EQ(frame.payload().size(), page);
    write(2, 0);
    ASSERT_EQ(take(frame), Take::frame);
    EXPECT_EQ(frame.payload().size(), 0U);
}

TEST_F(Slot, reader_announces_itself_for_the_next_frame_before_it_reads) {
    write(1, 10);
    int present = 0;
    Slot_Frame frame;
    const auto look = [&](auto&, auto) {
        present = relay_->value(zav_shm::consumer_side::consumer_present);
        return true;
    };
    ASSERT_EQ(reader_->take(frame, look), Take::frame);
    EXPECT_EQ(present, 1);
    EXPECT_EQ(relay_->value(zav_shm::consumer_side::read_done), 1);
}

// It would be taken for the next frame's.
TEST_F(Slot, reader_posts_nothing_for_a_frame_that_the_relay_has_given_up) {
    write(1, 10);
    Slot_Frame frame;
    const auto go_on = [&](auto&, auto) {
        return relay_->take(zav_shm::consumer_side::consumer_present);
    };
    ASSERT_EQ(reader_->take(frame, go_on), Take::frame);
    EXPECT_EQ(relay_->value(zav_shm::consumer_side::read_done), 0);
}

TEST_F(Slot, writer_waits_until_a_late_relay_has_given_the_slot_back) {
    writer_->begin();
    EXPECT_FALSE(writer_->commit(header_of(1, 0)));
    relay_->post(zav_shm::producer_side::consumer_present);
    EXPECT_FALSE(writer_->wait_for_consumer(5));

    writer_->begin();
    EXPECT_FALSE(writer_->commit(header_of(2, 0)));
    relay_->post(zav_shm::producer_side::slot_free);
    EXPECT_TRUE(writer_->wait_for_consumer(5));
    EXPECT_EQ(relay_->value(zav_shm::producer_side::slot_free), 0);
}

// In the middle of its predecessor's frame: with that presence it would stay one frame ahead.
TEST_F(Slot, writer_that_begins_does_not_count_an_old_presence) {
    relay_->post(zav_shm::producer_side::consumer_present);
    EXPECT_FALSE(writer_->wait_for_consumer(5));
    relay_->post(zav_shm::producer_side::consumer_present);
    EXPECT_TRUE(writer_->wait_for_consumer(5));
}

TEST_F(Slot, writer_that_begins_waits_until_the_relay_has_taken_the_frame_before) {
    relay_->post(zav_shm::producer_side::frame_written);
    relay_->post(zav_shm::producer_side::consumer_present);
    EXPECT_FALSE(writer_->wait_for_consumer(5));
    EXPECT_EQ(relay_->value(zav_shm::producer_side::consumer_present), 1);
    EXPECT_TRUE(relay_->take(zav_shm::producer_side::frame_written));
    EXPECT_FALSE(writer_->wait_for_consumer(5));
    relay_->post(zav_shm::producer_side::consumer_present);
    EXPECT_TRUE(writer_->wait_for_consumer(5));
}

#ifdef ZAV_SHM_TEST_POINTS
// The first producer has completed its frame 1 and died. Its successor has written its own frame 1
// as far as sequence and epoch when the reader, who has seen the first one's commit, copies the
// header; and it completes it while the payload is being copied.
TEST_F(Slot, of_a_successor_that_writes_the_same_number_is_torn) {
    write(1, 1000);
    const zav_shm::Test_Hook succeed = [this](const std::string& place, const std::string& object) {
        const std::string where = place + " " + object;
        if (where == "copy header" && header()->epoch == 77) {
            header()->commit = 0;
            std::fill_n(reinterpret_cast<std::byte*>(header() + 1), 500, std::byte{'B'});
            header()->epoch = 78;
        } else if (where == "copy read" && header()->commit == 0) {
            header()->payload_length = 500;
            header()->commit = 1;
        }
    };
    zav_shm::set_test_hook(&succeed);
    Taken frame;
    const Take taken = take(frame);
    zav_shm::set_test_hook(nullptr);
    EXPECT_EQ(taken, Take::torn) << "epoch " << frame.header.epoch << ", length "
                                 << frame.bytes.size();
}

// The first header of ours was being written when it was copied.
TEST_F(Slot, that_was_foreign_before_one_of_ours_wrote_is_taken_again) {
    header()->payload_length = 1000;
    const zav_shm::Test_Hook begin = [this](const std::string& place, const std::string& object) {
        if (place + " " + object == "copy read" && header()->magic == 0) {
            write(1, 100);
        }
    };
    zav_shm::set_test_hook(&begin);
    relay_->post(zav_shm::consumer_side::frame_ready);
    Taken frame;
    const Take taken = take(frame);
    zav_shm::set_test_hook(nullptr);
    ASSERT_EQ(taken, Take::frame);
    EXPECT_TRUE(frame.verified);
    EXPECT_EQ(frame.bytes.size(), 100U);
}
#endif

// The post may never come: a relay that was stopped leaves it out.
TEST_F(Slot, writer_waits_once_for_a_slot_that_is_not_given_back) {
    writer_->begin();
    EXPECT_FALSE(writer_->commit(header_of(1, 0)));
    EXPECT_FALSE(writer_->wait_for_consumer(5));
    EXPECT_TRUE(relay_->take(zav_shm::producer_side::frame_written));
    EXPECT_FALSE(writer_->wait_for_consumer(5));
    relay_->post(zav_shm::producer_side::consumer_present);
    EXPECT_TRUE(writer_->wait_for_consumer(5));
}

TEST_F(Slot, that_is_too_small_or_missing_is_not_usable) {
    leaves_segment("shm/SMALL");
    const IPC_SHMEMORY small("/shm/SMALL", O_CREAT | O_RDWR, 0600, 64);
    const std::string& src = names_->sem_path_src;
    const std::string& dst = names_->sem_path_dst;
    const std::string& exist = names_->sem_path_exist;
    EXPECT_FALSE(Slot_Writer("/shm/SMALL", src, dst, exist).is_usable());
    EXPECT_FALSE(Slot_Writer("/shm/NONE", src, dst, exist).is_usable());
    EXPECT_FALSE(Slot_Writer(names_->shm_path, "/NONE", dst, exist).is_usable());
    EXPECT_FALSE(Slot_Reader("/shm/NONE", src, dst, exist).is_usable());
    EXPECT_FALSE(Slot_Reader(names_->shm_path, src, "/NONE", exist).is_usable());
    EXPECT_TRUE(writer_->is_usable());
    EXPECT_TRUE(reader_->is_usable());

    reader_->change_shm("/shm/SMALL");
    relay_->post(zav_shm::consumer_side::frame_ready);
    Taken frame;
    EXPECT_EQ(take(frame), Take::unmapped);
}

TEST_F(Slot, without_a_post_there_is_nothing) {
    Taken frame;
    EXPECT_EQ(take(frame), Take::nothing);
}

TEST_F(Slot, a_slot_that_is_being_filled_is_torn) {
    write(1, 10);
    writer_->begin();
    Taken frame;
    EXPECT_EQ(take(frame), Take::torn);
}

TEST_F(Slot, a_slot_of_a_foreign_producer_that_is_being_filled_is_torn_too) {
    std::fill_n(static_cast<unsigned char*>(segment_->mem_addr), 128, 'x');
    header()->payload_length = 10;
    writer_->begin();
    relay_->post(zav_shm::consumer_side::frame_ready);
    Taken frame;
    EXPECT_EQ(take(frame), Take::torn);
}

TEST_F(Slot, a_commit_that_does_not_belong_to_the_sequence_is_torn) {
    write(3, 10);
    header()->commit = 4;
    Taken frame;
    EXPECT_EQ(take(frame), Take::torn);
}

TEST_F(Slot, a_sequence_whose_low_half_is_zero_can_be_committed) {
    write(0x3'0000'0000, 10);
    Taken frame;
    ASSERT_EQ(take(frame), Take::frame);
    EXPECT_EQ(header()->commit, 1U);
}

TEST_F(Slot, a_length_beyond_the_slot_is_invalid_in_our_and_in_foreign_frames) {
    write(1, 10);
    header()->payload_length = page + 1;
    Taken frame;
    EXPECT_EQ(take(frame), Take::invalid);
    header()->payload_length = 0xFFFF'FFFF;
    header()->magic = 0;
    relay_->post(zav_shm::consumer_side::frame_ready);
    EXPECT_EQ(take(frame), Take::invalid);
}

TEST_F(Slot, a_frame_without_memory_for_its_copy_is_lost_and_holds_up_nobody) {
    write(1, 100);
    Taken frame;
    EXPECT_EQ(reader_->take(frame, [](auto&, auto) { return false; }), Take::no_memory);
    EXPECT_EQ(relay_->value(zav_shm::consumer_side::read_done), 1);
    write(2, 100);
    EXPECT_EQ(take(frame), Take::frame);
    EXPECT_EQ(frame.header.sequence, 2U);
}

TEST_F(Slot, a_frame_without_our_magic_is_foreign_and_its_header_says_nothing) {
    write(9, 10);
    header()->magic = 0;
    Taken frame;
    ASSERT_EQ(take(frame), Take::frame);
    EXPECT_FALSE(frame.verified);
    EXPECT_EQ(frame.header.sequence, 0U);
    EXPECT_EQ(frame.payload().size(), 10U);
}

// A post may lead to it: that of another producer, right after the consumer was paired with that
// one.
TEST_F(Slot, that_nobody_has_written_into_holds_no_frame) {
    relay_->post(zav_shm::consumer_side::frame_ready);
    Taken frame;
    EXPECT_EQ(take(frame), Take::unwritten);
    EXPECT_EQ(relay_->value(zav_shm::consumer_side::read_done), 1) << "the relay goes on";
    header()->payload_length = 1;
    relay_->post(zav_shm::consumer_side::frame_ready);
    EXPECT_EQ(take(frame), Take::frame) << "of a foreign producer";
    header()->payload_length = 0;
    header()->reserved[43] = 1;
    relay_->post(zav_shm::consumer_side::frame_ready);
    EXPECT_EQ(take(frame), Take::frame) << "an empty one of a foreign producer";
}

TEST_F(Slot, another_version_is_foreign) {
    write(9, 10);
    header()->version = 2;
    Taken frame;
    ASSERT_EQ(take(frame), Take::frame);
    EXPECT_FALSE(frame.verified);
}

TEST_F(Slot, a_post_left_from_an_earlier_frame_does_not_end_the_wait_for_the_slot) {
    relay_->post(zav_shm::producer_side::slot_free);
    writer_->begin();
    const Stopwatch watch;
    EXPECT_FALSE(writer_->commit(header_of(1, 0)));
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(30));
}

// Each would end in vain: the frame would be lost, and the slot be taken for one that is read late.
TEST_F(Slot, waits_go_on_after_a_signal) {
    const auto interrupted_until_posted = [this](std::size_t semaphore, const auto& wait) {
        std::atomic<bool> over{false};
        std::thread posting([&] {
            while (!over) {
                std::this_thread::sleep_for(std::chrono::milliseconds(8));
                relay_->post(semaphore);
            }
        });
        bool came = false;
        errno_after_interrupting([&] { came = wait(); });
        over = true;
        posting.join();
        return came;
    };
    EXPECT_TRUE(interrupted_until_posted(zav_shm::producer_side::consumer_present,
                                         [this] { return writer_->wait_for_consumer(10'000); }));
    writer_->begin();
    EXPECT_TRUE(interrupted_until_posted(zav_shm::producer_side::slot_free,
                                         [this] { return writer_->commit(header_of(1, 0)); }));
    EXPECT_TRUE(relay_->take(zav_shm::producer_side::frame_written));

    Taken frame;
    const Stopwatch watch;
    errno_after_interrupting([&] { take(frame); });
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(40));
}

TEST_F(Slot, is_noticed_once_the_relay_has_taken_the_announcement) {
    Taken frame;
    take(frame);
    EXPECT_FALSE(reader_->is_noticed());
    EXPECT_TRUE(relay_->take(zav_shm::consumer_side::consumer_present));
    EXPECT_TRUE(reader_->is_noticed());
}

// Whatever a broken or hostile producer writes, at full rate: no frame is longer than the slot, and
// what is handed out as verified was committed.
TEST_F(Slot, random_headers_at_full_rate_do_no_harm) {
    std::atomic<bool> ends{false};
    std::thread hostile([this, &ends] {
        std::mt19937 random(1);
        while (!ends) {
            ZAV_SHM_Frame_Header made = {};
            auto* const bytes = reinterpret_cast<unsigned char*>(&made);
            std::generate_n(bytes, sizeof made,
                            [&] { return static_cast<unsigned char>(random()); });
            if (random() % 2 == 0) {
                made.magic = zav_shm::frame_magic;
                made.version = zav_shm::frame_version;
                made.payload_length %= 2 * page;
                made.commit = random() % 2 == 0 ? zav_shm::commit_of(made.sequence) : made.commit;
            }
            *header() = made;
        }
    });
    Taken frame;
    std::array<int, 7> taken = {};
    for (int i = 0; i < 100'000 || taken.at(2) * taken.at(3) == 0; ++i) {
        relay_->post(zav_shm::consumer_side::frame_ready);
        const Take result = take(frame);
        ++taken.at(static_cast<std::size_t>(result));
        ASSERT_LE(result == Take::frame ? frame.payload().size() : 0, page);
        if (result == Take::frame && frame.verified) {
            ASSERT_EQ(frame.header.magic, zav_shm::frame_magic);
        }
    }
    ends = true;
    hostile.join();
    std::printf("%d frames, %d torn, %d invalid\n", taken[1], taken[2], taken[3]);
    EXPECT_GT(taken[static_cast<std::size_t>(Take::torn)], 0);
    EXPECT_GT(taken[static_cast<std::size_t>(Take::invalid)], 0);
}

// A writer that pays no heed to the reader overwrites the slot under every copy. A frame that is
// handed out all the same has every byte of one frame.
TEST_F(Slot, never_hands_out_a_frame_that_was_overwritten_during_the_copy) {
    std::atomic<bool> ends{false};
    std::thread producer([this, &ends] {
        for (std::uint64_t sequence = 1; !ends; ++sequence) {
            write(sequence, page);
        }
    });
    std::uint64_t whole = 0;
    std::uint64_t torn = 0;
    std::uint64_t wrong = 0;
    Taken frame;
    const Stopwatch watch;
    // Both kinds have to have come, which takes a while where others keep the writer from a
    // processor.
    const auto goes_on = [&] {
        const bool is_enough = whole + torn >= 200'000 || watch.elapsed() > std::chrono::seconds(5);
        return watch.elapsed() < std::chrono::seconds(60) && (whole * torn == 0 || !is_enough);
    };
    while (goes_on()) {
        relay_->post(zav_shm::consumer_side::frame_ready);
        const Take taken = take(frame);
        whole += taken == Take::frame ? 1 : 0;
        torn += taken == Take::torn ? 1 : 0;
        if (taken == Take::frame) {
            const auto expected = static_cast<std::byte>(frame.header.sequence);
            const auto payload = frame.payload();
            const bool same = std::all_of(payload.begin(), payload.end(),
                                          [expected](std::byte each) { return each == expected; });
            wrong += same ? 0U : 1U;
        }
    }
    ends = true;
    producer.join();
    std::printf("%llu whole, %llu torn\n", static_cast<unsigned long long>(whole),
                static_cast<unsigned long long>(torn));
    EXPECT_EQ(wrong, 0U);
    EXPECT_GT(torn, 0U);
    EXPECT_GT(whole, 0U);
}

}  // namespace
