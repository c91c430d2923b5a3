// SPDX-License-Identifier: Apache-2.0
#include <future>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using std::chrono::milliseconds;

constexpr std::size_t written = 0;
constexpr std::size_t slot_free = 1;

// The relay's side is played by a peer on the same semaphores.
class Producer : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        make_slot(4096);
        source = make_source();
        relay = std::make_unique<Peer>(producer_names());
        producer = open_producer();
    }
    void TearDown() override {
        producer.reset();
        relay.reset();
        source.reset();
        Channels::TearDown();
    }

    std::vector<unsigned char> slot() const {
        const IPC_SHMEMORY segment("/shm/CAM_LOOP_0_0", O_RDONLY);
        const auto* start = static_cast<const unsigned char*>(segment.mem_addr);
        return {start, start + segment.size};
    }

    void fill_slot(unsigned char value) const {
        const IPC_SHMEMORY segment("/shm/CAM_LOOP_0_0", O_RDWR);
        std::memset(segment.mem_addr, value, segment.size);
    }

    std::unique_ptr<Source> source;
    std::unique_ptr<Peer> relay;
    std::unique_ptr<ZAV_SHM_Stream_Distributor> producer;
};

TEST_F(Producer, without_a_consumer_drops_the_frame_after_ten_milliseconds) {
    Frame frame(100);
    const Stopwatch watch;
    EXPECT_FALSE(producer->distribute_frame(frame.get()));
    EXPECT_GE(watch.elapsed(), milliseconds(9));
    EXPECT_EQ(producer->get_sem_wait_error(), 1);
    EXPECT_EQ(slot(), std::vector<unsigned char>(4224, 0));
    EXPECT_EQ(relay->values(), (std::vector<int>{0, 0, 0}));
}

TEST_F(Producer, writes_header_and_payload_and_posts_written) {
    Frame frame(100, 9);
    relay->post(present);
    relay->post(slot_free);
    EXPECT_TRUE(producer->distribute_frame(frame.get()));
    const auto content = slot();
    EXPECT_EQ(std::memcmp(content.data(), frame.get(), 128), 0);
    EXPECT_EQ(std::memcmp(content.data() + 128, frame.payload().data(), 100), 0);
    EXPECT_EQ(content[228], 0);
    EXPECT_EQ(relay->values(), (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(producer->get_sem_wait_error(), 0);
}

TEST_F(Producer, succeeds_although_the_slot_is_not_given_back) {
    Frame frame(100);
    relay->post(present);
    const Stopwatch watch;
    EXPECT_TRUE(producer->distribute_frame(frame.get()));
    EXPECT_GE(watch.elapsed(), milliseconds(32));
    EXPECT_EQ(producer->get_sem_wait_error(), 1);
}

TEST_F(Producer, posts_written_at_most_once) {
    Frame frame(1);
    for (int i = 0; i < 2; ++i) {
        relay->post(present);
        relay->post(slot_free);
        EXPECT_TRUE(producer->distribute_frame(frame.get()));
    }
    EXPECT_EQ(relay->value(written), 1);
}

TEST_F(Producer, frame_without_payload_writes_only_the_header) {
    fill_slot(0xEE);
    Frame null_payload(100);
    null_payload->payload = nullptr;
    Frame no_length(100);
    no_length->payload_length = 0;
    for (Frame* frame : {&null_payload, &no_length}) {
        relay->post(present);
        relay->post(slot_free);
        EXPECT_TRUE(producer->distribute_frame(frame->get()));
        EXPECT_TRUE(relay->take(written));
        EXPECT_EQ(relay->value(slot_free), 0);
        EXPECT_EQ(std::memcmp(slot().data(), frame->get(), 128), 0);
        EXPECT_EQ(slot()[128], 0xEE);
    }
}

TEST_F(Producer, frame_that_fills_the_page_is_written_whole) {
    Frame frame(4096, 3);
    relay->post(present);
    relay->post(slot_free);
    EXPECT_TRUE(producer->distribute_frame(frame.get()));
    EXPECT_EQ(std::memcmp(slot().data() + 128, frame.payload().data(), 4096), 0);
}

TEST_F(Producer, frame_longer_than_the_page_is_refused_before_anything_is_touched) {
    Frame frame(4097);
    relay->post(present);
    EXPECT_FALSE(producer->distribute_frame(frame.get()));
    EXPECT_EQ(slot(), std::vector<unsigned char>(4224, 0));
    EXPECT_EQ(relay->values(), (std::vector<int>{0, 0, 1}));
    frame->payload_length = 0xFFFFFFFFU;
    EXPECT_FALSE(producer->distribute_frame(frame.get()));
}

TEST_F(Producer, refuses_a_null_frame_at_once) {
    relay->post(present);
    EXPECT_FALSE(producer->distribute_frame(static_cast<STREAM_FRAME_FORMAT*>(nullptr)));
    EXPECT_EQ(relay->value(present), 1);
}

TEST_F(Producer, timed_waits_keep_the_count_of_timeouts) {
    EXPECT_FALSE(producer->time_wait_transmission(1));
    EXPECT_FALSE(producer->time_wait_receiver_exist(1));
    EXPECT_EQ(producer->get_sem_wait_error(), 2);
    relay->post(present);
    EXPECT_TRUE(producer->time_wait_receiver_exist(1));
    EXPECT_EQ(producer->get_sem_wait_error(), 0);
    relay->post(slot_free);
    EXPECT_TRUE(producer->time_wait_transmission(1));
}

TEST_F(Producer, untimed_wait_ends_with_slot_free) {
    auto waiting = std::async(std::launch::async, [&] { producer->wait_transmission(); });
    EXPECT_EQ(waiting.wait_for(milliseconds(30)), std::future_status::timeout);
    relay->post(slot_free);
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST_F(Producer, of_the_two_semaphore_form_uses_the_named_semaphores) {
    const auto names = producer_names();
    ZAV_SHM_Stream_Distributor two(names.shm_path, names.sem_path_src, names.sem_path_dst);
    relay->post(0);
    EXPECT_EQ(two.get_sem_up_value(), 1);
    EXPECT_EQ(two.get_sem_down_value(), 0);
    EXPECT_EQ(two.get_sem_value(0), -1);
    EXPECT_FALSE(two.time_wait_receiver_exist(60'000));  // no list: fails at once
    EXPECT_FALSE(two.time_wait_transmission(60'000));
    two.post_transmission();
    two.wait_transmission();
    relay->post(1);
    EXPECT_EQ(two.time_wait(1000), 0);
}

}  // namespace
