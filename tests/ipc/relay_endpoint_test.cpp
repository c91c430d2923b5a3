// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <future>
#include <sstream>
#include <thread>

#include "support/channel.h"
#include "support/interrupted.h"
#include "support/threads.h"

namespace {

using std::chrono::milliseconds;

class Open_Writer : public ZAV_SHM_Stream_Transmission_Distributor {
public:
    using ZAV_SHM_Stream_Transmission_Distributor::sem_down;
    using ZAV_SHM_Stream_Transmission_Distributor::sem_list;
    using ZAV_SHM_Stream_Transmission_Distributor::sem_up;
    using ZAV_SHM_Stream_Transmission_Distributor::ZAV_SHM_Stream_Transmission_Distributor;
};

class Relay_Endpoint : public Channels {
protected:
    static std::string address_of(const Writer& writer) {
        std::ostringstream out;
        out << static_cast<const void*>(&writer);
        return out.str();
    }
};

TEST_F(Relay_Endpoint, replaces_existing_semaphores_and_starts_at_zero) {
    {
        const auto former = make_source();
        const Peer peer(producer_names());
        for (const std::size_t i : {0U, 1U, 2U}) {
            peer.post(i);
            peer.post(i);
        }
        ASSERT_EQ(peer.values(), (std::vector<int>{2, 2, 2}));
    }
    const auto source = make_source();
    EXPECT_EQ(Peer(producer_names()).values(), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(source->get_sem_value(0), 0);
}

TEST_F(Relay_Endpoint, from_a_null_record_has_no_semaphores_and_does_nothing) {
    Source source(nullptr);
    Writer writer(nullptr);
    EXPECT_EQ(source.get_sem_value(0), -1);
    EXPECT_EQ(writer.get_sem_value(0), -1);
    EXPECT_FALSE(source.time_wait_distributor_write(60'000));
    EXPECT_FALSE(writer.time_wait_receiver_read(60'000));
    EXPECT_FALSE(writer.time_wait_receiver_exist(60'000));
    source.wait_distributor_write();
    writer.wait_receiver_read();
    source.post_distributor_write();
    source.post_distributor_receiver_exist();
    writer.post_receiver_read();
    writer.reset();
    EXPECT_EQ(writer.get_sem_wait_error(), 0);
}

TEST_F(Relay_Endpoint, source_posts_slot_free_and_presence_as_flags) {
    const auto source = make_source();
    const Peer producer(producer_names());
    for (int i = 0; i < 2; ++i) {
        source->post_distributor_write();
        source->post_distributor_receiver_exist();
    }
    EXPECT_EQ(producer.values(), (std::vector<int>{0, 1, 1}));
}

TEST_F(Relay_Endpoint, source_waits_for_a_written_frame) {
    const auto source = make_source();
    const Peer producer(producer_names());
    EXPECT_FALSE(source->time_wait_distributor_write(1));
    producer.post(0);
    EXPECT_TRUE(source->time_wait_distributor_write(1));
    producer.post(0);
    source->wait_distributor_write();
    EXPECT_EQ(producer.values(), (std::vector<int>{0, 0, 0}));
}

TEST_F(Relay_Endpoint, writer_posts_ready_and_waits_for_read_and_presence) {
    const auto writer = make_writer("PLAYER");
    const Peer consumer(consumer_names("PLAYER"));
    writer->post_receiver_read();
    writer->post_receiver_read();
    EXPECT_EQ(consumer.values(), (std::vector<int>{1, 0, 0}));
    consumer.post(1);
    EXPECT_TRUE(writer->time_wait_receiver_read(1));
    consumer.post(2);
    EXPECT_TRUE(writer->time_wait_receiver_exist(1));
    consumer.post(1);
    writer->wait_receiver_read();
    EXPECT_EQ(consumer.values(), (std::vector<int>{1, 0, 0}));
}

TEST_F(Relay_Endpoint, writer_counts_missed_presence_until_one_success) {
    const auto writer = make_writer("PLAYER");
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(writer->time_wait_receiver_exist(5));
    }
    EXPECT_EQ(writer->get_sem_wait_error(), 3);
    Peer(consumer_names("PLAYER")).post(2);
    EXPECT_TRUE(writer->time_wait_receiver_exist(5));
    EXPECT_EQ(writer->get_sem_wait_error(), 0);
    EXPECT_FALSE(writer->time_wait_receiver_read(1));
    EXPECT_EQ(writer->get_sem_wait_error(), 1);
}

TEST_F(Relay_Endpoint, interrupted_wait_leaves_the_count) {
    const auto writer = make_writer("PLAYER");
    EXPECT_FALSE(writer->time_wait_receiver_read(1));
    bool taken = true;
    EXPECT_EQ(errno_after_interrupting([&] { taken = writer->time_wait_receiver_read(60'000); }),
              EINTR);
    EXPECT_FALSE(taken);
    EXPECT_EQ(writer->get_sem_wait_error(), 1);
}

TEST_F(Relay_Endpoint, start_flag_is_set_and_cleared_with_a_line) {
    const auto writer = make_writer("PLAYER");
    EXPECT_FALSE(writer->is_start_transmission());
    EXPECT_EQ(output_of([&] { writer->start_transmission(); }),
              "Distributor " + address_of(*writer) + " start_transmission\n");
    EXPECT_TRUE(writer->is_start_transmission());
    EXPECT_EQ(output_of([&] { writer->stop_transmission(); }),
              "Distributor " + address_of(*writer) + " stop_transmission\n");
    EXPECT_FALSE(writer->is_start_transmission());
}

TEST_F(Relay_Endpoint, reset_returns_to_the_state_after_construction) {
    const auto writer = make_writer("PLAYER");
    const Peer consumer(consumer_names("PLAYER"));
    for (const std::size_t i : {0U, 1U, 2U}) {
        consumer.post(i);
        consumer.post(i);
    }
    EXPECT_TRUE(writer->time_wait_receiver_exist(1));
    EXPECT_TRUE(writer->time_wait_receiver_exist(1));
    EXPECT_FALSE(writer->time_wait_receiver_exist(1));
    output_of([&] { writer->start_transmission(); });
    writer->reset();
    EXPECT_EQ(consumer.values(), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(writer->get_sem_wait_error(), 0);
    EXPECT_FALSE(writer->is_start_transmission());
}

// A live re-pairing resets the writer of a consumer that sits in its wait.
TEST_F(Relay_Endpoint, reset_beside_a_blocked_consumer_still_lets_the_next_post_wake_it) {
    make_slot(4096);
    const auto writer = make_writer("PLAYER");
    const auto consumer = open_consumer("PLAYER");
    std::atomic<pid_t> id{0};
    std::atomic<bool> woken{false};
    std::thread reading([&] {
        id = gettid();
        woken = consumer->time_wait_transmission(60'000);
    });
    ASSERT_TRUE(becomes_true([&] { return id != 0 && is_asleep(id); }));
    writer->reset();
    const Stopwatch watch;
    writer->post_receiver_read();
    reading.join();
    EXPECT_TRUE(woken);
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(30));
}

TEST_F(Relay_Endpoint, never_sees_a_pause) {
    const auto writer = make_writer("PLAYER");
    const Stopwatch watch;
    EXPECT_FALSE(writer->time_wait_receiver_pause(60'000));
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(30));
}

TEST_F(Relay_Endpoint, waiting_client_is_seen_on_the_named_semaphores_alone) {
    const auto names = consumer_names("PLAYER");
    leaves_semaphores(names);
    leaves_semaphore("/UP");
    leaves_semaphore("/DOWN");
    Open_Writer writer(&names);
    EXPECT_FALSE(writer.is_wait_client_receiver());
    writer.sem_up = std::make_unique<SEM_CTRL>("/UP", true);
    writer.sem_down = std::make_unique<SEM_CTRL>("/DOWN", true);
    EXPECT_FALSE(writer.is_wait_client_receiver());
    sem_post(writer.sem_up->sem);
    EXPECT_TRUE(writer.is_wait_client_receiver());
    sem_post(writer.sem_down->sem);
    EXPECT_FALSE(writer.is_wait_client_receiver());
}

}  // namespace
