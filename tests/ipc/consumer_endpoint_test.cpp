// SPDX-License-Identifier: Apache-2.0
#include <future>
#include <regex>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using std::chrono::milliseconds;

constexpr std::size_t ready = 0;
constexpr std::size_t read_done = 1;

class Open_Consumer : public ZAV_SHM_Stream_Receiver {
public:
    using ZAV_SHM_Stream_Receiver::pause_requested;
    using ZAV_SHM_Stream_Receiver::sem_down;
    using ZAV_SHM_Stream_Receiver::shm;
    using ZAV_SHM_Stream_Receiver::ZAV_SHM_Stream_Receiver;
};

// The relay's side is played by a peer on the same semaphores.
class Consumer : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        make_slot(4096);
        writer = make_writer("PLAYER");
        const auto names = consumer_names("PLAYER");
        relay = std::make_unique<Peer>(names);
        consumer = std::make_unique<Open_Consumer>("/shm/CAM_LOOP_0_0", names.sem_path_src,
                                                   names.sem_path_dst, names.sem_path_exist);
    }
    void TearDown() override {
        consumer.reset();
        relay.reset();
        writer.reset();
        Channels::TearDown();
    }

    static void write_slot(Frame& frame, const std::string& name = "CAM_LOOP") {
        const IPC_SHMEMORY segment(producer_names(name).shm_path.c_str(), O_RDWR);
        auto* const start = static_cast<unsigned char*>(segment.mem_addr);
        std::memcpy(start, frame.get(), 128);
        std::memcpy(start + 128, frame.payload().data(), frame.payload().size());
    }

    std::unique_ptr<Writer> writer;
    std::unique_ptr<Peer> relay;
    std::unique_ptr<Open_Consumer> consumer;
};

TEST_F(Consumer, without_a_frame_returns_false_after_thirty_milliseconds_and_stays_announced) {
    Frame frame(4096, 5);
    const Stopwatch watch;
    EXPECT_FALSE(consumer->receive_frame(frame.get()));
    EXPECT_GE(watch.elapsed(), milliseconds(29));
    EXPECT_EQ(relay->values(), (std::vector<int>{0, 0, 1}));
    EXPECT_FALSE(consumer->receive_frame(frame.get()));
    EXPECT_EQ(relay->value(present), 1);
}

TEST_F(Consumer, copies_header_and_payload_and_posts_read_done) {
    Frame sent(100, 9);
    write_slot(sent);
    Frame got(4096, 1);
    relay->post(ready);
    EXPECT_TRUE(consumer->receive_frame(got.get()));
    EXPECT_TRUE(got.same_header(sent));
    EXPECT_EQ(std::memcmp(got.payload().data(), sent.payload().data(), 100), 0);
    EXPECT_EQ(got.payload()[100], Frame(4096, 1).payload()[100]);
    EXPECT_EQ(relay->values(), (std::vector<int>{0, 1, 1}));
}

TEST_F(Consumer, takes_a_frame_that_fills_the_page) {
    Frame sent(4096, 9);
    write_slot(sent);
    Frame got(4096, 1);
    relay->post(ready);
    EXPECT_TRUE(consumer->receive_frame(got.get()));
    EXPECT_EQ(got.payload(), sent.payload());
}

TEST_F(Consumer, drops_a_frame_whose_length_is_beyond_the_slot) {
    Frame sent(4096, 9);
    sent->payload_length = 4097;
    write_slot(sent);
    Frame got(4096, 1);
    Frame untouched(4096, 1);
    for (const std::uint32_t length : {4097U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        sent->payload_length = length;
        write_slot(sent);
        relay->post(ready);
        EXPECT_FALSE(consumer->receive_frame(got.get()));
        EXPECT_TRUE(got.same_header(untouched));
        EXPECT_EQ(got.payload(), untouched.payload());
        EXPECT_TRUE(relay->take(read_done));
    }
}

TEST_F(Consumer, with_a_null_payload_takes_the_header_alone) {
    Frame sent(100, 9);
    write_slot(sent);
    Frame got(4096, 1);
    got->payload = nullptr;
    relay->post(ready);
    EXPECT_TRUE(consumer->receive_frame(got.get()));
    EXPECT_TRUE(got.same_header(sent));
}

TEST_F(Consumer, refuses_a_null_frame_without_announcing_itself) {
    relay->post(ready);
    EXPECT_FALSE(consumer->receive_frame(static_cast<STREAM_FRAME_FORMAT*>(nullptr)));
    EXPECT_EQ(relay->values(), (std::vector<int>{1, 0, 0}));
}

TEST_F(Consumer, without_a_slot_says_so_and_completes_the_handshake) {
    consumer->shm.reset();
    Frame got(4096, 1);
    Frame untouched(4096, 1);
    relay->post(ready);
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(consumer->receive_frame(got.get())); }),
              "Get NULL mem_addr!!!\n");
    EXPECT_TRUE(got.same_header(untouched));
    EXPECT_EQ(got.payload(), untouched.payload());
    EXPECT_EQ(relay->value(read_done), 1);
}

TEST_F(Consumer, pausing_posts_read_done_and_prints_the_values_around_it) {
    relay->post(ready);
    consumer->pause_requested = true;
    const std::string text = output_of([&] { consumer->receive_frame_pause(); });
    std::ostringstream address;
    address << static_cast<void*>(consumer.get());
    const std::regex expected(address.str() +
                              " In receive_frame_pause Before Post Transmission \\(1, 0\\), "
                              "[0-9]+ [0-9]+\n" +
                              address.str() +
                              " In receive_frame_pause After Post Transmission \\(1, 1\\), "
                              "[0-9]+ [0-9]+\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
    EXPECT_FALSE(consumer->pause_requested);
    EXPECT_EQ(relay->values(), (std::vector<int>{1, 1, 0}));
}

TEST_F(Consumer, change_to_the_current_segment_changes_nothing_but_the_pause_flag) {
    consumer->pause_requested = true;
    void* const before = consumer->shm->mem_addr;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(consumer->change_shm("/shm/CAM_LOOP_0_0"), 1); }),
              "Change SHM from /shm/CAM_LOOP_0_0 to /shm/CAM_LOOP_0_0\n");
    EXPECT_FALSE(consumer->pause_requested);
    EXPECT_EQ(consumer->shm->mem_addr, before);
}

TEST_F(Consumer, change_to_another_segment_reads_from_there) {
    make_slot(8192, "CAM_REC");
    Frame sent(8000, 7);
    write_slot(sent, "CAM_REC");
    output_of([&] { EXPECT_EQ(consumer->change_shm("/shm/CAM_REC_0_0"), 1); });
    Frame got(8192, 1);
    relay->post(ready);
    EXPECT_TRUE(consumer->receive_frame(got.get()));
    EXPECT_EQ(std::memcmp(got.payload().data(), sent.payload().data(), 8000), 0);
}

TEST_F(Consumer, change_to_nothing_returns_one_and_leaves_nothing_mapped) {
    output_of([&] {
        EXPECT_EQ(consumer->change_shm(nullptr), 1);
        EXPECT_EQ(consumer->change_shm("/shm/MISSING"), 1);
        EXPECT_EQ(consumer->change_shm(""), 1);
    });
    EXPECT_FALSE(consumer->shm->is_mapped());
}

TEST_F(Consumer, of_the_two_semaphore_form_posts_down_when_switched_to_nothing) {
    const auto names = consumer_names("PLAYER");
    Open_Consumer two("/shm/CAM_LOOP_0_0", names.sem_path_src, names.sem_path_dst);
    output_of([&] { EXPECT_EQ(two.change_shm(""), 1); });
    EXPECT_EQ(two.sem_down->value(), 1);
    output_of([&] { EXPECT_EQ(two.change_shm(""), 1); });
    EXPECT_EQ(two.sem_down->value(), 1);
    Frame frame(4096);
    EXPECT_FALSE(two.receive_frame(frame.get()));  // no list to wait on
}

TEST_F(Consumer, waits_end_with_frame_ready) {
    EXPECT_FALSE(consumer->time_wait_transmission(1));
    relay->post(ready);
    EXPECT_TRUE(consumer->time_wait_transmission(1));
    auto waiting = std::async(std::launch::async, [&] { consumer->wait_transmission(); });
    EXPECT_EQ(waiting.wait_for(milliseconds(30)), std::future_status::timeout);
    relay->post(ready);
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST_F(Consumer, posts_are_flags_and_a_pause_post_is_none) {
    for (int i = 0; i < 3; ++i) {
        consumer->post_transmission();
        consumer->post_transmission_receiver_exist();
        consumer->post_transmission_pause_receive();
    }
    EXPECT_EQ(relay->values(), (std::vector<int>{0, 1, 1}));
}

// The same code as two threads of one process, which is what a thread sanitizer can see.
TEST_F(Consumer, is_switched_by_one_thread_while_another_reads) {
    make_slot(4096, "CAM_REC");
    Frame loop(4096, 3);
    Frame rec(4096, 4);
    write_slot(loop);
    write_slot(rec, "CAM_REC");
    std::atomic<bool> stop{false};
    std::thread switching([&] {
        for (int i = 0; !stop; ++i) {
            consumer->change_shm(i % 2 == 0 ? "/shm/CAM_REC_0_0" : "/shm/CAM_LOOP_0_0");
        }
    });
    output_of([&] {
        for (int i = 0; i < 300; ++i) {
            Frame got(4096, 1);
            consumer->post_transmission();
            relay->post(ready);
            ASSERT_TRUE(consumer->receive_frame(got.get()));
            EXPECT_TRUE(got.payload() == loop.payload() || got.payload() == rec.payload());
        }
        stop = true;
        switching.join();
    });
}

}  // namespace
