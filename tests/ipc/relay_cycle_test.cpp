// SPDX-License-Identifier: Apache-2.0
#include <future>
#include <sstream>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using std::chrono::milliseconds;
using Values = std::vector<int>;

// One cycle at a time, with both clients played by peers on the same semaphores.
class Relay_Cycle : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        source = make_source();
        producer = std::make_unique<Peer>(producer_names());
        relay = std::make_unique<SHM_Stream_Transmission>(source.get());
    }
    void TearDown() override {
        relay.reset();
        writers.clear();
        consumers.clear();
        producer.reset();
        source.reset();
        Channels::TearDown();
    }

    Peer& add_consumer(const std::string& name) {
        writers.push_back(make_writer(name));
        relay->insert_distributor(writers.back().get());
        consumers.push_back(std::make_unique<Peer>(consumer_names(name)));
        return *consumers.back();
    }

    std::unique_ptr<Source> source;
    std::unique_ptr<Peer> producer;
    std::unique_ptr<SHM_Stream_Transmission> relay;
    std::vector<std::unique_ptr<Writer>> writers;
    std::vector<std::unique_ptr<Peer>> consumers;
};

TEST_F(Relay_Cycle, without_writers_sleeps_and_touches_no_semaphore) {
    producer->post(0);
    const Stopwatch watch;
    EXPECT_EQ(relay->transmission_frame(), 0);
    EXPECT_GE(watch.elapsed(), milliseconds(49));
    EXPECT_EQ(producer->values(), (Values{1, 0, 0}));
}

TEST_F(Relay_Cycle, absent_consumer_costs_two_timeouts_and_the_producer_hears_nothing) {
    const Peer& consumer = add_consumer("PLAYER");
    producer->post(0);
    const Stopwatch watch;
    EXPECT_EQ(relay->transmission_frame(), 0);
    EXPECT_GE(watch.elapsed(), milliseconds(34));
    EXPECT_EQ(writers[0]->get_sem_wait_error(), 2);
    EXPECT_EQ(relay->transmission_frame(), 0);
    EXPECT_EQ(writers[0]->get_sem_wait_error(), 4);
    EXPECT_EQ(producer->values(), (Values{1, 0, 0}));
    EXPECT_EQ(consumer.values(), (Values{0, 0, 0}));
}

TEST_F(Relay_Cycle, passes_a_written_frame_to_two_live_consumers) {
    const Peer& first = add_consumer("PLAYER");
    const Peer& second = add_consumer("RECODER");
    for (const Peer* consumer : {&first, &second}) {
        consumer->post(2);
        consumer->post(1);  // has read, so that the cycle need not wait
    }
    producer->post(0);
    EXPECT_EQ(relay->transmission_frame(), 0);
    EXPECT_EQ(producer->values(), (Values{0, 1, 1}));
    EXPECT_EQ(first.values(), (Values{1, 0, 0}));
    EXPECT_EQ(second.values(), (Values{1, 0, 0}));
    EXPECT_EQ(writers[0]->get_sem_wait_error(), 0);
    EXPECT_EQ(writers[1]->get_sem_wait_error(), 0);
}

// Ready goes to all before the first "read done" is waited for, and the slot is freed only after
// the last one.
TEST_F(Relay_Cycle, waits_for_each_reader_before_the_slot_is_free) {
    const Peer& first = add_consumer("PLAYER");
    const Peer& second = add_consumer("RECODER");
    first.post(2);
    second.post(2);
    producer->post(0);
    auto cycle = std::async(std::launch::async, [&] { return relay->transmission_frame(); });
    ASSERT_TRUE(second.take(0, 20'000));
    EXPECT_EQ(first.value(0), 1);
    second.post(1);
    ASSERT_EQ(cycle.get(), 0);  // 20 ms for the first, which never reads
    EXPECT_EQ(writers[0]->get_sem_wait_error(), 1);
    EXPECT_EQ(producer->values(), (Values{0, 1, 1}));
}

TEST_F(Relay_Cycle, slow_reader_delays_the_slot_by_twenty_milliseconds) {
    const Peer& consumer = add_consumer("PLAYER");
    consumer.post(2);
    producer->post(0);
    const Stopwatch watch;
    EXPECT_EQ(relay->transmission_frame(), 0);
    EXPECT_GE(watch.elapsed(), milliseconds(19));
    EXPECT_EQ(writers[0]->get_sem_wait_error(), 1);
    EXPECT_EQ(producer->values(), (Values{0, 1, 1}));
    EXPECT_EQ(consumer.values(), (Values{1, 0, 0}));
}

TEST_F(Relay_Cycle, absent_consumer_does_not_stop_the_live_one) {
    const Peer& absent = add_consumer("PLAYER");
    const Peer& live = add_consumer("RECODER");
    live.post(2);
    live.post(1);
    producer->post(0);
    EXPECT_EQ(relay->transmission_frame(), 0);
    EXPECT_EQ(absent.values(), (Values{0, 0, 0}));
    EXPECT_EQ(live.values(), (Values{1, 0, 0}));
    EXPECT_EQ(writers[0]->get_sem_wait_error(), 1);
    EXPECT_EQ(producer->value(1), 1);
}

TEST_F(Relay_Cycle, without_a_frame_returns_one_and_posts_no_consumer) {
    const Peer& consumer = add_consumer("PLAYER");
    consumer.post(2);
    const Stopwatch watch;
    EXPECT_EQ(relay->transmission_frame(), 1);
    EXPECT_GE(watch.elapsed(), milliseconds(29));
    EXPECT_EQ(producer->values(), (Values{0, 0, 1}));
    EXPECT_EQ(consumer.values(), (Values{0, 0, 0}));
}

TEST_F(Relay_Cycle, late_read_of_a_consumer_that_left_frees_the_slot) {
    const Peer& consumer = add_consumer("PLAYER");
    consumer.post(1);
    EXPECT_EQ(relay->transmission_frame(), 0);
    EXPECT_EQ(producer->values(), (Values{0, 1, 0}));
    EXPECT_EQ(consumer.values(), (Values{0, 0, 0}));
    EXPECT_EQ(writers[0]->get_sem_wait_error(), 0);
}

TEST_F(Relay_Cycle, without_a_source_checks_presence_and_serves_nobody) {
    SHM_Stream_Transmission lonely;
    const auto writer = make_writer("PLAYER");
    const Peer consumer(consumer_names("PLAYER"));
    lonely.insert_distributor(writer.get());
    consumer.post(2);
    EXPECT_EQ(lonely.transmission_frame(), 0);
    EXPECT_EQ(consumer.values(), (Values{0, 0, 0}));
    consumer.post(1);
    EXPECT_EQ(lonely.transmission_frame(), 0);
    EXPECT_EQ(consumer.values(), (Values{0, 0, 0}));
}

TEST_F(Relay_Cycle, counts_what_it_does) {
    const Peer& first = add_consumer("PLAYER");
    add_consumer("RECODER");
    first.post(2);
    relay->transmission_frame();  // first is present, no frame comes
    first.post(2);
    first.post(1);
    producer->post(0);
    relay->transmission_frame();  // a frame for first
    first.post(2);
    producer->post(0);
    relay->transmission_frame();  // a frame that first does not read
    relay->transmission_frame();  // nobody is present
    const zav_shm::Relay_Counters& counters = relay->counters();
    EXPECT_EQ(counters.cycles.value(), 4U);
    EXPECT_EQ(counters.frames.value(), 2U);
    EXPECT_EQ(counters.presence_timeouts.value(), 5U);
    EXPECT_EQ(counters.frame_timeouts.value(), 1U);
    EXPECT_EQ(counters.read_timeouts.value(), 1U);
    EXPECT_EQ(counters.late_read_timeouts.value(), 2U);
    EXPECT_EQ(counters.live, 0);
    EXPECT_EQ(writers[0]->frames_relayed(), 2U);
    EXPECT_EQ(writers[1]->frames_relayed(), 0U);
}

TEST_F(Relay_Cycle, carries_a_frame_between_real_endpoints) {
    make_slot(4096);
    add_consumer("PLAYER");
    const auto sending = open_producer();
    const auto receiving = open_consumer("PLAYER");
    Frame sent(3000, 5);
    Frame got(4096, 1);
    auto reader = std::async(std::launch::async, [&] {
        while (!receiving->receive_frame(got.get())) {
        }
    });
    auto writer = std::async(std::launch::async, [&] {
        while (!sending->distribute_frame(sent.get())) {
        }
    });
    while (reader.wait_for(milliseconds(0)) != std::future_status::ready ||
           writer.wait_for(milliseconds(0)) != std::future_status::ready) {
        relay->transmission_frame();
    }
    EXPECT_TRUE(got.same_header(sent));
    EXPECT_EQ(std::memcmp(got.payload().data(), sent.payload().data(), 3000), 0);
}

}  // namespace
